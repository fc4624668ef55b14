#include "lib/cfgctrl.h"

#include <fstream>
#include <sys/stat.h>

#include "lib/alloc.h"
#include "lib/tqstdio.h"
#include "support/netns.h"
#include "support/time_limit.h"

namespace {

// Runs `attempt` with the n-th allocation failing for n = 1, 2, ... until it succeeds; every
// earlier run must report -ENOMEM (the sanitizer build proves that those paths free everything).
template <typename F> void fail_each_allocation(F &&attempt) {
    int result = -ENOMEM;
    for (unsigned nth = 1; result == -ENOMEM && nth < 100; ++nth) {
        dyp_alloc_fail_after(nth);
        result = attempt();
        dyp_alloc_fail_after(0);
    }
    EXPECT_EQ(result, 0);
}

// A private directory holding the file "conf", removed with its content.
class CfgFile : public ::testing::Test {
  protected:
    ~CfgFile() override { (void)run_shell("rm -rf " + dir_); }
    void write(const std::string &content) { std::ofstream(path_) << content; }
    // The value of `key` in the file at `path`, or the error number of a failure.
    std::string value(const char *section, const char *key, const std::string &path = "") {
        char *found = nullptr;
        int result =
            tq_cfg_get_ini_string((path.empty() ? path_ : path).c_str(), section, key, &found);
        std::string text = result < 0 ? std::to_string(result) : found;
        tq_cfg_release_string(found);
        return text;
    }
    // The error of reading `path`, within a time limit (a FIFO might hold the reader).
    std::optional<int> refusal(const std::string &path) {
        return run_with_time_limit([&] { return std::stoi(value(nullptr, "product", path)); });
    }
    char pattern_[24] = "/tmp/dyptest-cfg-XXXXXX";
    std::string dir_ = mkdtemp(pattern_), path_ = dir_ + "/conf";
};

} // namespace

TEST_F(CfgFile, GetIniStringFollowsTheFileSyntax) {
    write(" \tport \t= 1 =x #c\r\n\r\nproduct=\n=ignored\n#hostname=x\nk=first\nk=second\n"
          "[ abc ]\nk=spaced\n[ABC]\nk=upper\n[abc]junk\nk=exact\nonly=here\n[next]\nlast=end");
    const struct {
        const char *section, *key, *value;
    } cases[] = {
        {nullptr, "port", " 1 =x #c"}, {"", "product", ""},      {nullptr, "ignored", "-2"},
        {nullptr, "#hostname", "x"},   {nullptr, "k", "first"},  {nullptr, "only", "-2"},
        {"abc", "k", "exact"},         {" abc ", "k", "spaced"}, {"Abc", "k", "-2"},
        {"abc", "last", "-2"},         {"next", "last", "end"},  {"none", "k", "-2"},
        {"abcd", "k", "-2"},           {nullptr, "kk", "-2"},    {nullptr, "", "-2"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(value(c.section, c.key), c.value) << (c.section ? c.section : "-") << c.key;
    char *found = nullptr;
    fail_each_allocation(
        [&] { return tq_cfg_get_ini_string(path_.c_str(), "abc", "only", &found); });
    EXPECT_STREQ(found, "here");
    tq_cfg_release_string(found);
}

// The first [x] is read; its "a" replaces each line whose text before '=' is exactly "a".
TEST_F(CfgFile, SectionIsReadInFileOrderAndWrittenBackByUntrimmedKey) {
    write("top=0\n[x]\r\na=1\r\n\r\nnoise\nb = 2\na=3\n[ t ]x\n[y]\na=5\na = 7\n[x]\nd=4\n[open\n");
    tqmap<tq_cfg_pair> *map = nullptr;
    fail_each_allocation([&] { return tq_cfg_get_section(path_.c_str(), "x", &map); });
    tqmap_find(map, "a")->item->value[0] = '9';
    std::string pairs;
    tqlist_for_each(map->list, [&](const tq_cfg_pair *pair) {
        pairs += std::string(pair->key) + "=" + pair->value + ";";
        return true;
    });
    EXPECT_EQ(pairs, "a=9;b= 2;a=3;");
    fail_each_allocation([&] { return tq_cfg_set_strings(path_.c_str(), dir_.c_str(), map); });
    EXPECT_EQ(run_shell_output("cat " + path_),
              "top=0\n[x]\na=9\nnoise\nb = 2\na=9\n[ t ]x\n[y]\na=9\na = 7\n"
              "[x]\nd=4\n[open\n");
    tq_cfg_release_section(map);
}

// A FIFO, a device or a file beyond the bound must not hold the reader:
// every reader refuses it before reading anything.
TEST_F(CfgFile, EveryReaderRefusesAnythingButABoundedRegularFile) {
    ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
    EXPECT_EQ(refusal(path_), -EFBIG) << "a FIFO without writer";
    EXPECT_EQ(refusal("/dev/zero"), -EFBIG);
    ASSERT_EQ(unlink(path_.c_str()), 0);
    tqmap<tq_cfg_pair> *map = nullptr;
    write("product=x\n" + std::string(TQ_CONFIG_MAX_SIZE - 9, '#'));
    EXPECT_EQ(tq_cfg_get_section(path_.c_str(), nullptr, &map), -EFBIG);
    EXPECT_EQ(map, nullptr);
    map = tqmap_create<tq_cfg_pair>(strcmp);
    EXPECT_EQ(tq_cfg_set_strings(path_.c_str(), dir_.c_str(), map), -EFBIG);
    tq_cfg_release_section(map);
    write("product=x\n" + std::string(TQ_CONFIG_MAX_SIZE - 10, '#'));
    EXPECT_EQ(value(nullptr, "product"), "x") << "exactly the bound is read";
}
