#include "lib/cfgctrl.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "lib/alloc.h"
#include "support/log_capture.h"

namespace {

// A private directory for configuration files, removed with its content.
class config_dir {
  public:
    config_dir() {
        char pattern[] = "/tmp/dyptest-cfg-XXXXXX";
        path_ = mkdtemp(pattern);
    }
    ~config_dir() {
        for (const auto &name : entries(path_))
            unlink((path_ + "/" + name).c_str());
        rmdir(path_.c_str());
    }
    const std::string &path() const { return path_; }

    // Writes `content` to the file "conf" and returns its path.
    std::string write(const std::string &content) const {
        std::string file = path_ + "/conf";
        FILE *out = fopen(file.c_str(), "w");
        fwrite(content.data(), 1, content.size(), out);
        fclose(out);
        return file;
    }

    static std::vector<std::string> entries(const std::string &dir) {
        std::vector<std::string> names;
        DIR *listing = opendir(dir.c_str());
        if (listing == nullptr)
            return names;
        while (dirent *entry = readdir(listing))
            if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
                names.push_back(entry->d_name);
        closedir(listing);
        return names;
    }

  private:
    std::string path_;
};

std::string read_file(const std::string &path) {
    std::string content;
    FILE *in = fopen(path.c_str(), "r");
    if (in == nullptr)
        return "<missing>";
    int c;
    while ((c = getc(in)) != EOF)
        content += static_cast<char>(c);
    fclose(in);
    return content;
}

// The value of `key`, or "<errno N>" for a failure.
std::string ini_value(const std::string &path, const char *section, const char *key) {
    char *value = nullptr;
    int result = tq_cfg_get_ini_string(path.c_str(), section, key, &value);
    if (result < 0)
        return "<errno " + std::to_string(-result) + ">";
    std::string copy = value;
    tq_cfg_release_string(value);
    return copy;
}

const std::string enoent = "<errno " + std::to_string(ENOENT) + ">";

// The pairs of a section map in list order, as "key=value".
std::vector<std::string> pairs_of(tqmap<tq_cfg_pair> *map) {
    std::vector<std::string> pairs;
    tqlist_for_each(map->list, [&](tq_cfg_pair *pair) {
        pairs.push_back(std::string(pair->key) + "=" + pair->value);
        return true;
    });
    return pairs;
}

// Runs `attempt` with the n-th allocation failing for n = 1, 2, ... until
// it succeeds; every failing run must report -ENOMEM (the sanitizer build
// also proves that nothing leaks on those paths). Returns the number of
// allocations the successful run needed.
template <typename F> int fail_each_allocation(F &&attempt) {
    for (unsigned nth = 1; nth < 100; ++nth) {
        dyp_alloc_fail_after(nth);
        int result = attempt();
        dyp_alloc_fail_after(0);
        if (result != -ENOMEM) {
            EXPECT_EQ(result, 0) << "allocation " << nth;
            return static_cast<int>(nth);
        }
    }
    ADD_FAILURE() << "never succeeded";
    return 0;
}

} // namespace

TEST(CfgSplitLine, TrimsTheKeyButKeepsTheValueAsWritten) {
    tq_cfg_pair *pair = nullptr;
    ASSERT_EQ(tq_cfg_split_line(" \tport num \t= 19540 =x \"q\" #c\r\n", &pair), 0);
    EXPECT_STREQ(pair->key, "port num");
    EXPECT_STREQ(pair->value, " 19540 =x \"q\" #c");
    tq_cfg_free_pair(pair);
}

TEST(CfgSplitLine, EmptyKeyOrValue) {
    tq_cfg_pair *pair = nullptr;
    ASSERT_EQ(tq_cfg_split_line("key=", &pair), 0);
    EXPECT_STREQ(pair->value, "");
    tq_cfg_free_pair(pair);
    // Only a leading '=' is refused; blanks before it leave an empty key.
    ASSERT_EQ(tq_cfg_split_line("  =v", &pair), 0);
    EXPECT_STREQ(pair->key, "");
    EXPECT_STREQ(pair->value, "v");
    tq_cfg_free_pair(pair);
}

TEST(CfgSplitLine, RefusesLinesThatAreNoPairs) {
    tq_cfg_pair *pair = nullptr;
    EXPECT_EQ(tq_cfg_split_line("no equals", &pair), -EINVAL);
    EXPECT_EQ(tq_cfg_split_line("=leading", &pair), -EINVAL);
    EXPECT_EQ(tq_cfg_split_line(nullptr, &pair), -EINVAL);
    EXPECT_EQ(tq_cfg_split_line("a=b", nullptr), -EINVAL);
    EXPECT_EQ(pair, nullptr);
    tq_cfg_free_pair(nullptr);
}

TEST(CfgSplitLine, MemoryRunningOutLeavesNothing) {
    tq_cfg_pair *pair = nullptr;
    EXPECT_EQ(fail_each_allocation([&] { return tq_cfg_split_line("a=b", &pair); }), 4);
    EXPECT_STREQ(pair->key, "a");
    tq_cfg_free_pair(pair);
}

TEST(CfgSeekSection, StopsJustAfterTheHeader) {
    config_dir dir;
    FILE *in = fopen(dir.write("a=1\n[one]\nb=2\n[two] tail\nc=3\n").c_str(), "r");
    ASSERT_EQ(tq_cfg_seek_section(in, "two"), 0);
    char line[16];
    ASSERT_NE(fgets(line, sizeof line, in), nullptr);
    EXPECT_STREQ(line, "c=3\n");
    EXPECT_EQ(tq_cfg_seek_section(in, "one"), -ENOENT);
    fclose(in);
}

TEST(CfgSeekSection, NoSectionDoesNotMoveTheStream) {
    config_dir dir;
    FILE *in = fopen(dir.write("[x]\n").c_str(), "r");
    EXPECT_EQ(tq_cfg_seek_section(in, nullptr), 0);
    EXPECT_EQ(tq_cfg_seek_section(in, ""), 0);
    EXPECT_EQ(ftell(in), 0);
    EXPECT_EQ(tq_cfg_seek_section(nullptr, "x"), -EINVAL);
    fclose(in);
}

TEST(CfgGetIniString, KeyBlanksTrimmedValueBlanksKept) {
    config_dir dir;
    std::string path = dir.write("  portnum = 19540\nproduct=\n=ignored\n");
    EXPECT_EQ(ini_value(path, nullptr, "portnum"), " 19540");
    EXPECT_EQ(ini_value(path, nullptr, "product"), "");
    EXPECT_EQ(ini_value(path, nullptr, "ignored"), enoent);
}

TEST(CfgGetIniString, SectionNamesMatchExactly) {
    config_dir dir;
    std::string path = dir.write("[ abc ]\nk=spaced\n[ABC]\nk=upper\n[abc]junk\nk=exact\n");
    EXPECT_EQ(ini_value(path, "abc", "k"), "exact");
    EXPECT_EQ(ini_value(path, " abc ", "k"), "spaced");
    EXPECT_EQ(ini_value(path, "Abc", "k"), enoent);
}

TEST(CfgGetIniString, UnnamedSectionEndsAtTheFirstHeader) {
    config_dir dir;
    std::string path = dir.write("a=1\n[s]\nb=2\n[t]\nc=3\n");
    EXPECT_EQ(ini_value(path, nullptr, "a"), "1");
    EXPECT_EQ(ini_value(path, "", "a"), "1");
    EXPECT_EQ(ini_value(path, nullptr, "b"), enoent);
    EXPECT_EQ(ini_value(path, "s", "c"), enoent);
    EXPECT_EQ(ini_value(path, "missing", "a"), enoent);
}

TEST(CfgGetIniString, FirstOfDuplicatedKeysWins) {
    config_dir dir;
    EXPECT_EQ(ini_value(dir.write("k=first\nk=second\n"), nullptr, "k"), "first");
}

TEST(CfgGetIniString, HashIsNoComment) {
    config_dir dir;
    std::string path = dir.write("#product=x\n;hostname=y\n");
    EXPECT_EQ(ini_value(path, nullptr, "product"), enoent);
    EXPECT_EQ(ini_value(path, nullptr, "#product"), "x");
}

TEST(CfgGetIniString, CrLfAndUnterminatedLastLine) {
    config_dir dir;
    std::string path = dir.write("a=1\r\n\r\n[s]\r\nb=2\r\nc=3");
    EXPECT_EQ(ini_value(path, nullptr, "a"), "1");
    EXPECT_EQ(ini_value(path, "s", "b"), "2");
    EXPECT_EQ(ini_value(path, "s", "c"), "3");
}

TEST(CfgGetIniString, RefusesBadArgumentsAndMissingFiles) {
    config_dir dir;
    std::string path = dir.write("a=1\n");
    char *value = nullptr;
    EXPECT_EQ(tq_cfg_get_ini_string(nullptr, nullptr, "a", &value), -EINVAL);
    EXPECT_EQ(tq_cfg_get_ini_string(path.c_str(), nullptr, nullptr, &value), -EINVAL);
    EXPECT_EQ(tq_cfg_get_ini_string(path.c_str(), nullptr, "a", nullptr), -EINVAL);
    EXPECT_EQ(tq_cfg_get_ini_string((dir.path() + "/none").c_str(), nullptr, "a", &value), -EIO);
    EXPECT_EQ(value, nullptr);
}

TEST(CfgGetIniString, MemoryRunningOut) {
    config_dir dir;
    std::string path = dir.write("x=0\n[s]\nlong_key_that_grows_the_line=v\nk=value\n");
    char *value = nullptr;
    fail_each_allocation([&] { return tq_cfg_get_ini_string(path.c_str(), "s", "k", &value); });
    EXPECT_STREQ(value, "value");
    tq_cfg_release_string(value);
}

TEST(CfgGetSection, PairsInFileOrderWithDuplicatesOfTheFirstOccurrence) {
    config_dir dir;
    std::string path = dir.write("top=0\n[s]\na=1\nnoise\nb = 2\na=3\n[t]\nc=4\n[s]\nd=5\n");
    tqmap<tq_cfg_pair> *map = nullptr;
    ASSERT_EQ(tq_cfg_get_section(path.c_str(), "s", &map), 0);
    EXPECT_EQ(pairs_of(map), (std::vector<std::string>{"a=1", "b= 2", "a=3"}));
    tqlist_node<tq_cfg_pair> *found = tqmap_find(map, "a");
    ASSERT_NE(found, tqlist_head(map->list));
    EXPECT_STREQ(found->item->value, "1");
    tq_cfg_release_section(map);

    ASSERT_EQ(tq_cfg_get_section(path.c_str(), nullptr, &map), 0);
    EXPECT_EQ(pairs_of(map), std::vector<std::string>{"top=0"});
    tq_cfg_release_section(map);
}

TEST(CfgGetSection, Failures) {
    config_dir dir;
    std::string path = dir.write("[s]\na=1\n");
    tqmap<tq_cfg_pair> *map = nullptr;
    EXPECT_EQ(tq_cfg_get_section(path.c_str(), "t", &map), -ENOENT);
    EXPECT_EQ(tq_cfg_get_section((dir.path() + "/none").c_str(), "s", &map), -EIO);
    EXPECT_EQ(tq_cfg_get_section(nullptr, "s", &map), -EINVAL);
    EXPECT_EQ(tq_cfg_get_section(path.c_str(), "s", nullptr), -EINVAL);
    EXPECT_EQ(map, nullptr);
    tq_cfg_release_section(nullptr);
}

TEST(CfgGetSection, MemoryRunningOut) {
    config_dir dir;
    std::string path = dir.write("[s]\na=1\nb=2\n");
    tqmap<tq_cfg_pair> *map = nullptr;
    fail_each_allocation([&] { return tq_cfg_get_section(path.c_str(), "s", &map); });
    EXPECT_EQ(pairs_of(map), (std::vector<std::string>{"a=1", "b=2"}));
    tq_cfg_release_section(map);
}

TEST(CfgGetSectionList, NamesInFileOrderWithoutTheUnnamedPart) {
    config_dir dir;
    std::string path = dir.write("a=1\n[one]\n[ two ]x\n [no]\n[one]\n[unclosed\n");
    tqlist<char> *names = nullptr;
    ASSERT_EQ(tq_cfg_get_section_list(path.c_str(), &names), 0);
    std::vector<std::string> listed;
    tqlist_for_each(names, [&](char *name) {
        listed.push_back(name);
        return true;
    });
    EXPECT_EQ(listed, (std::vector<std::string>{"one", " two ", "one"}));
    EXPECT_EQ(names->count, 3u);
    tq_cfg_release_section_list(names);
}

TEST(CfgGetSectionList, Failures) {
    config_dir dir;
    tqlist<char> *names = nullptr;
    EXPECT_EQ(tq_cfg_get_section_list((dir.path() + "/none").c_str(), &names), -EIO);
    EXPECT_EQ(tq_cfg_get_section_list(nullptr, &names), -EINVAL);
    EXPECT_EQ(tq_cfg_get_section_list(dir.write("").c_str(), nullptr), -EINVAL);
    EXPECT_EQ(names, nullptr);
    tq_cfg_release_section_list(nullptr);
    std::string path = dir.write("[a]\n[b]\n");
    fail_each_allocation([&] { return tq_cfg_get_section_list(path.c_str(), &names); });
    EXPECT_EQ(names->count, 2u);
    tq_cfg_release_section_list(names);
}

namespace {
// A section map holding the given key/value pairs, built through the
// reader itself from a scratch file.
tqmap<tq_cfg_pair> *map_of(const config_dir &dir, const std::string &pairs) {
    std::string scratch = dir.path() + "/pairs";
    FILE *out = fopen(scratch.c_str(), "w");
    fputs(pairs.c_str(), out);
    fclose(out);
    tqmap<tq_cfg_pair> *map = nullptr;
    EXPECT_EQ(tq_cfg_get_section(scratch.c_str(), nullptr, &map), 0);
    unlink(scratch.c_str());
    return map;
}
} // namespace

TEST(CfgSetStrings, ReplacesTheKeyInEverySectionAndKeepsTheRest) {
    config_dir dir;
    std::string path = dir.write("[x]\r\na=1\r\n\r\nb=2\r\n[y]\na=5\na = 7\nplain\nabsent_too\n");
    tqmap<tq_cfg_pair> *map = map_of(dir, "a=9\nz=0\n");
    ASSERT_EQ(tq_cfg_set_strings(path.c_str(), dir.path().c_str(), map), 0);
    EXPECT_EQ(read_file(path), "[x]\na=9\nb=2\n[y]\na=9\na = 7\nplain\nabsent_too\n");
    EXPECT_EQ(config_dir::entries(dir.path()), std::vector<std::string>{"conf"});
    tq_cfg_release_section(map);
}

TEST(CfgSetStrings, AnUntrimmedMapKeyMatchesOnlyTheSameText) {
    config_dir dir;
    std::string path = dir.write("a =1\na=2\n");
    tqmap<tq_cfg_pair> *map = map_of(dir, "x=0\n");
    // The reader trims keys, so set one by hand as a caller could.
    tq_cfg_pair *pair = tqlist_head(map->list)->next->item;
    char *spaced = static_cast<char *>(dyp_malloc(3));
    std::memcpy(spaced, "a ", 3);
    dyp_free(pair->key);
    pair->key = spaced;
    ASSERT_EQ(tq_cfg_set_strings(path.c_str(), dir.path().c_str(), map), 0);
    EXPECT_EQ(read_file(path), "a =0\na=2\n");
    tq_cfg_release_section(map);
}

TEST(CfgSetStrings, RenameAcrossFileSystemsFailsAndLeavesTheTemporaryFile) {
    struct stat here {
    }, shm{};
    config_dir dir;
    if (stat(dir.path().c_str(), &here) != 0 || stat("/dev/shm", &shm) != 0 ||
        here.st_dev == shm.st_dev)
        GTEST_SKIP() << "needs /dev/shm on a file system of its own";
    std::string path = dir.write("a=1\n");
    tqmap<tq_cfg_pair> *map = map_of(dir, "a=2\n");
    char shm_dir[] = "/dev/shm/dyptest-cfg-XXXXXX";
    ASSERT_NE(mkdtemp(shm_dir), nullptr);
    log_capture log;
    EXPECT_EQ(tq_cfg_set_strings(path.c_str(), shm_dir, map), -1);
    std::vector<std::string> left = config_dir::entries(shm_dir);
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(left[0].rfind("conf.tmp.", 0), 0u);
    std::string temp = std::string(shm_dir) + "/" + left[0];
    EXPECT_EQ(read_file(temp), "a=2\n");
    EXPECT_EQ(read_file(path), "a=1\n");
    EXPECT_EQ(log.count(LOG_CRIT, "Rename config file fail master " + path + " tmp " + temp), 1);
    unlink(temp.c_str());
    rmdir(shm_dir);
    tq_cfg_release_section(map);
}

TEST(CfgSetStrings, FailingWriteGivesNoSpaceAndKeepsTheFile) {
    config_dir dir;
    std::string original;
    for (int i = 0; i < 2000; ++i)
        original += "key" + std::to_string(i) + "=value\n";
    std::string path = dir.write(original);
    tqmap<tq_cfg_pair> *map = map_of(dir, "key1=changed\n");
    // A child with a tiny file size limit sees its writes fail with EFBIG.
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        signal(SIGXFSZ, SIG_IGN);
        rlimit limit{1024, 1024};
        setrlimit(RLIMIT_FSIZE, &limit);
        _exit(-tq_cfg_set_strings(path.c_str(), dir.path().c_str(), map));
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), ENOSPC);
    EXPECT_EQ(read_file(path), original);
    EXPECT_EQ(config_dir::entries(dir.path()).size(), 2u) << "temporary file left behind";
    tq_cfg_release_section(map);
}

TEST(CfgSetStrings, FailingOpens) {
    config_dir dir;
    std::string path = dir.write("a=1\n");
    tqmap<tq_cfg_pair> *map = map_of(dir, "a=2\n");
    EXPECT_EQ(tq_cfg_set_strings((dir.path() + "/none").c_str(), dir.path().c_str(), map), -ENOENT);
    EXPECT_EQ(tq_cfg_set_strings(path.c_str(), (dir.path() + "/none").c_str(), map), -ENOENT);
    EXPECT_EQ(tq_cfg_set_strings(nullptr, dir.path().c_str(), map), -EINVAL);
    EXPECT_EQ(tq_cfg_set_strings(path.c_str(), nullptr, map), -EINVAL);
    EXPECT_EQ(tq_cfg_set_strings(path.c_str(), dir.path().c_str(), nullptr), -EINVAL);
    EXPECT_EQ(read_file(path), "a=1\n");
    tq_cfg_release_section(map);
}

TEST(CfgSetStrings, MemoryRunningOut) {
    config_dir dir;
    std::string path = dir.write("a=1\n");
    tqmap<tq_cfg_pair> *map = map_of(dir, "a=2\n");
    fail_each_allocation([&] { return tq_cfg_set_strings(path.c_str(), dir.path().c_str(), map); });
    EXPECT_EQ(read_file(path), "a=2\n");
    tq_cfg_release_section(map);
}
