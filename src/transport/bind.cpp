#include "transport/socket.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <net/if.h>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "lib/alloc.h"
#include "lib/fd.h"
#include "lib/nerrno.h"
#include "lib/text.h"

namespace {

// A piece longer than this is ignored; of a kept piece the name field
// holds at most 15 characters.
constexpr size_t BIND_PIECE_MAX = 16;

struct bind_list {
    dypd_bind_entry *entries = nullptr;
    int32_t count = 0;
};

// A name holds at most 15 characters, so the comparison stops inside it.
// strncmp rather than a string_view comparison, which would need memcmp.
bool listed(const bind_list &list, std::string_view piece) {
    for (int32_t i = 0; i < list.count; ++i) {
        const char *name = list.entries[i].name;
        if (strncmp(name, piece.data(), piece.size()) == 0 && name[piece.size()] == '\0')
            return true;
    }
    return false;
}

int append_entry(bind_list &list, std::string_view piece) {
    size_t count = static_cast<size_t>(list.count) + 1;
    auto *entries =
        static_cast<dypd_bind_entry *>(dyp_realloc(list.entries, count * sizeof(dypd_bind_entry)));
    if (entries == nullptr)
        return -ENOMEM;
    list.entries = entries;
    list.count = static_cast<int32_t>(count);

    dypd_bind_entry &entry = entries[count - 1];
    entry = dypd_bind_entry{};
    entry.include = piece.front() == '!' ? 0 : 1;
    if (entry.include == 0)
        piece.remove_prefix(1);
    size_t copied = std::min(piece.size(), sizeof entry.name - 1);
    memcpy(entry.name, piece.data(), copied);
    entry.name[copied] = '\0';
    entry.ifindex = DYPD_IFINDEX_UNRESOLVED;
    return 0;
}

int parse_bind_list(std::string_view text, bind_list &list) {
    while (!text.empty()) {
        // remove_prefix and the pointer constructor, not substr: substr
        // may throw and would pull the C++ runtime into the daemon.
        size_t end = std::min(text.find(','), text.size());
        std::string_view piece(text.data(), end);
        text.remove_prefix(end == text.size() ? end : end + 1);
        if (piece.empty() || piece.size() > BIND_PIECE_MAX || listed(list, piece))
            continue;
        int result = append_entry(list, piece);
        if (result < 0)
            return result;
    }
    return 0;
}

// A throwaway datagram socket to put interface questions to the kernel.
unique_fd interface_query_socket() {
    return unique_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}

int resolve_index(int fd, const char *name) {
    ifreq request{};
    copy_text(request.ifr_name, name);
    if (ioctl(fd, SIOCGIFINDEX, &request) < 0)
        return DYPD_IFINDEX_UNRESOLVED;
    return request.ifr_ifindex;
}

} // namespace

int dypd_set_bind_interface(dypd_endpoint_header *endpoint, const char *text) {
    if (endpoint == nullptr || text == nullptr)
        return -EINVAL;
    bind_list list;
    if (parse_bind_list(text, list) < 0) {
        dyp_free(list.entries);
        return -ENOMEM;
    }
    dyp_free(endpoint->bind_list);
    endpoint->bind_list = list.entries;
    endpoint->bind_count = list.count;
    // An unresolvable name simply never decides; nothing to report here.
    (void)dypd_refresh_interface_index(endpoint);
    return 0;
}

int dypd_refresh_interface_index(dypd_endpoint_header *endpoint) {
    if (endpoint == nullptr)
        return -EINVAL;
    unique_fd temporary;
    int fd = endpoint->fd;
    if (fd < 0) {
        temporary = interface_query_socket();
        if (!temporary.valid())
            return -EINVAL;
        fd = temporary.get();
    }
    for (int32_t i = 0; i < endpoint->bind_count; ++i) {
        dypd_bind_entry &entry = endpoint->bind_list[i];
        entry.ifindex =
            entry.name[0] == '*' ? DYPD_IFINDEX_WILDCARD : resolve_index(fd, entry.name);
    }
    return 0;
}

// Link-local addressing of the bound interfaces is not managed by this
// daemon; the call exists so that start-up keeps one place to add it.
int dypd_check_link_local_address(dypd_endpoint_header *) {
    return -EINVAL;
}

int dypd_get_ifname(int index, char *buffer, size_t length) {
    if (buffer == nullptr || length == 0)
        return -EINVAL;
    // The C library asks the kernel the same question (SIOCGIFNAME); the
    // device server's commands already use it.
    char name[IF_NAMESIZE];
    if (index <= 0 || if_indextoname(static_cast<unsigned>(index), name) == nullptr)
        return -EINVAL;
    copy_text(buffer, length, name, sizeof name);
    return 0;
}

int dypd_bind_verdict(const dypd_endpoint_header *endpoint, int ifindex) {
    for (int32_t i = 0; i < endpoint->bind_count; ++i) {
        const dypd_bind_entry &entry = endpoint->bind_list[i];
        if (entry.ifindex == DYPD_IFINDEX_WILDCARD)
            return entry.include != 0 ? 0 : -EBADMSG;
        if (entry.ifindex == ifindex)
            return entry.reject == 0 && entry.include != 0 ? 0 : -EBADMSG;
    }
    // An empty list, or one where nothing decides, serves every interface.
    return 0;
}
