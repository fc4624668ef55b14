#include "lib/cfgctrl.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <glob.h>
#include <string>
#include <sys/stat.h>
#include <syslog.h>
#include <vector>

#include <gtest/gtest.h>

#include "lib/alloc.h"
#include "support/log_capture.h"

namespace {

using texts = std::vector<std::string>;
const std::string not_found = "errno " + std::to_string(ENOENT);

std::string read_file(const std::string &path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
}

// The items of `list` as text, in list order.
template <typename T, typename F> texts texts_of(tqlist<T> *list, F &&to_text) {
    texts found;
    tqlist_for_each(list, [&](T *item) {
        found.push_back(to_text(item));
        return true;
    });
    return found;
}

// Runs `attempt` with the n-th allocation failing for n = 1, 2, ... until
// it succeeds; every earlier run must report -ENOMEM (the sanitizer build
// proves that those paths free everything).
template <typename F> void fail_each_allocation(F &&attempt) {
    for (unsigned nth = 1; nth < 100; ++nth) {
        dyp_alloc_fail_after(nth);
        int result = attempt();
        dyp_alloc_fail_after(0);
        if (result != -ENOMEM) {
            EXPECT_EQ(result, 0) << "allocation " << nth;
            return;
        }
    }
    ADD_FAILURE() << "never succeeded";
}

// A private directory holding the file "conf", removed with its content.
class CfgFile : public ::testing::Test {
  protected:
    CfgFile() {
        char pattern[] = "/tmp/dyptest-cfg-XXXXXX";
        dir_ = mkdtemp(pattern);
        path_ = dir_ + "/conf";
    }
    ~CfgFile() override { (void)!std::system(("rm -rf " + dir_).c_str()); }
    const char *write(const std::string &content) {
        std::ofstream(path_) << content;
        return path_.c_str();
    }
    // The value of `key`, or "errno N" for a failure.
    std::string value(const char *section, const char *key) {
        char *found = nullptr;
        int result = tq_cfg_get_ini_string(path_.c_str(), section, key, &found);
        if (result < 0)
            return "errno " + std::to_string(-result);
        std::string copy = found;
        tq_cfg_release_string(found);
        return copy;
    }
    std::string dir_, path_;
};

// A one-entry section map made by hand, so the key can be any text.
struct one_entry_map {
    tqmap<tq_cfg_pair> *map = tqmap_create<tq_cfg_pair>(std::strcmp);
    tq_cfg_pair pair;
    one_entry_map(const char *key, const char *value)
        : pair{const_cast<char *>(key), const_cast<char *>(value)} {
        tqlist_append(map->list, &pair);
    }
    ~one_entry_map() { tqmap_dispose(map); }
};

} // namespace

TEST(CfgSplitLine, TrimsTheKeyOnlyAndRefusesLinesWithoutKey) {
    tq_cfg_pair *pair = nullptr;
    ASSERT_EQ(tq_cfg_split_line(" \tport num \t= 19540 =x \"q\" #c\r\n", &pair), 0);
    EXPECT_STREQ(pair->key, "port num");
    EXPECT_STREQ(pair->value, " 19540 =x \"q\" #c");
    tq_cfg_free_pair(pair);
    EXPECT_EQ(tq_cfg_split_line("no equals", &pair), -EINVAL);
    EXPECT_EQ(tq_cfg_split_line("=leading", &pair), -EINVAL);
}

TEST_F(CfgFile, GetIniStringFollowsTheFileSyntax) {
    write("  portnum = 19540\r\n\r\nproduct=\n=ignored\n#hostname=x\nk=first\nk=second\n"
          "[ abc ]\nk=spaced\n[ABC]\nk=upper\n[abc]junk\nk=exact\nonly=here\n[next]\nlast=end");
    const struct {
        const char *section, *key;
        std::string value;
    } cases[] = {
        {nullptr, "portnum", " 19540"}, {"", "product", ""},      {nullptr, "ignored", not_found},
        {nullptr, "#hostname", "x"},    {nullptr, "k", "first"},  {nullptr, "only", not_found},
        {"abc", "k", "exact"},          {" abc ", "k", "spaced"}, {"Abc", "k", not_found},
        {"abc", "last", not_found},     {"next", "last", "end"},  {"none", "k", not_found},
    };
    for (const auto &c : cases)
        EXPECT_EQ(value(c.section, c.key), c.value) << (c.section ? c.section : "-") << c.key;
    char *found = nullptr;
    EXPECT_EQ(tq_cfg_get_ini_string(path_.c_str(), nullptr, "k", nullptr), -EINVAL);
    EXPECT_EQ(tq_cfg_get_ini_string("/nonexistent/dyptest", nullptr, "k", &found), -EIO);
    fail_each_allocation(
        [&] { return tq_cfg_get_ini_string(path_.c_str(), "abc", "only", &found); });
    EXPECT_STREQ(found, "here");
    tq_cfg_release_string(found);
}

TEST_F(CfgFile, SectionsAreReadInFileOrderFromTheFirstOccurrence) {
    write("top=0\n[s]\na=1\nnoise\nb = 2\na=3\n[ t ]x\nc=4\n[s]\nd=5\n[unclosed\n");
    tqmap<tq_cfg_pair> *map = nullptr;
    fail_each_allocation([&] { return tq_cfg_get_section(path_.c_str(), "s", &map); });
    auto key_value = [](tq_cfg_pair *pair) { return std::string(pair->key) + "=" + pair->value; };
    EXPECT_EQ(texts_of(map->list, key_value), (texts{"a=1", "b= 2", "a=3"}));
    EXPECT_STREQ(tqmap_find(map, "a")->item->value, "1");
    tq_cfg_release_section(map);
    tqlist<char> *names = nullptr;
    fail_each_allocation([&] { return tq_cfg_get_section_list(path_.c_str(), &names); });
    auto name = [](char *text) { return std::string(text); };
    EXPECT_EQ(texts_of(names, name), (texts{"s", " t ", "s"}));
    tq_cfg_release_section_list(names);
    map = nullptr;
    names = nullptr;
    EXPECT_EQ(tq_cfg_get_section(path_.c_str(), "t", &map), -ENOENT);
    EXPECT_EQ(tq_cfg_get_section("/nonexistent/dyptest", "s", &map), -EIO);
    EXPECT_EQ(tq_cfg_get_section_list("/nonexistent/dyptest", &names), -EIO);
    EXPECT_EQ(map, nullptr) << "a failure hands nothing out";
    EXPECT_EQ(names, nullptr);
}

TEST_F(CfgFile, SetStringsReplacesTheKeyInEverySectionAndKeepsTheRest) {
    write("[x]\r\na=1\r\n\r\nb=2\r\n[y]\na=5\na = 7\nplain\n");
    one_entry_map change("a", "9"), absent("z", "0");
    fail_each_allocation(
        [&] { return tq_cfg_set_strings(path_.c_str(), dir_.c_str(), change.map); });
    EXPECT_EQ(read_file(path_), "[x]\na=9\nb=2\n[y]\na=9\na = 7\nplain\n");
    ASSERT_EQ(tq_cfg_set_strings(path_.c_str(), dir_.c_str(), absent.map), 0);
    EXPECT_EQ(read_file(path_), "[x]\na=9\nb=2\n[y]\na=9\na = 7\nplain\n");
    std::string none = dir_ + "/none";
    EXPECT_EQ(tq_cfg_set_strings(none.c_str(), dir_.c_str(), change.map), -ENOENT);
    EXPECT_EQ(tq_cfg_set_strings(path_.c_str(), none.c_str(), change.map), -ENOENT);
    EXPECT_EQ(tq_cfg_set_strings(path_.c_str(), dir_.c_str(), nullptr), -EINVAL);
}

TEST_F(CfgFile, SetStringsLeavesTheTemporaryFileWhenTheRenameFails) {
    struct stat here {
    }, shm{};
    if (stat(dir_.c_str(), &here) != 0 || stat("/dev/shm", &shm) != 0 || here.st_dev == shm.st_dev)
        GTEST_SKIP() << "needs /dev/shm on a file system of its own";
    one_entry_map change("a", "2");
    char shm_dir[] = "/dev/shm/dyptest-cfg-XXXXXX";
    ASSERT_NE(mkdtemp(shm_dir), nullptr);
    log_capture log;
    EXPECT_EQ(tq_cfg_set_strings(write("a=1\n"), shm_dir, change.map), -1);
    glob_t left{};
    ASSERT_EQ(glob((std::string(shm_dir) + "/conf.tmp.*").c_str(), 0, nullptr, &left), 0);
    ASSERT_EQ(left.gl_pathc, 1u);
    std::string temp = left.gl_pathv[0];
    globfree(&left);
    EXPECT_EQ(read_file(temp), "a=2\n");
    EXPECT_EQ(read_file(path_), "a=1\n");
    EXPECT_EQ(log.count(LOG_CRIT, "Rename config file fail master " + path_ + " tmp " + temp), 1);
    (void)!std::system((std::string("rm -rf ") + shm_dir).c_str());
}
