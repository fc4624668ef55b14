#include "lib/cfgctrl.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <string>
#include <sys/stat.h>
#include <syslog.h>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "lib/alloc.h"
#include "support/log_capture.h"

namespace {

std::vector<std::string> entries(const std::string &dir) {
    std::vector<std::string> names;
    if (DIR *listing = opendir(dir.c_str())) {
        while (dirent *entry = readdir(listing))
            if (entry->d_name[0] != '.')
                names.push_back(entry->d_name);
        closedir(listing);
    }
    return names;
}

std::string read_file(const std::string &path) {
    std::string content;
    if (FILE *in = fopen(path.c_str(), "r")) {
        for (int c; (c = getc(in)) != EOF;)
            content += static_cast<char>(c);
        fclose(in);
    }
    return content;
}

// A private directory holding the file "conf", removed with its content.
class CfgFile : public ::testing::Test {
  protected:
    CfgFile() {
        char pattern[] = "/tmp/dyptest-cfg-XXXXXX";
        dir_ = mkdtemp(pattern);
        path_ = dir_ + "/conf";
    }
    ~CfgFile() override {
        for (const auto &name : entries(dir_))
            unlink((dir_ + "/" + name).c_str());
        rmdir(dir_.c_str());
    }
    const char *write(const std::string &content) {
        FILE *out = fopen(path_.c_str(), "w");
        fwrite(content.data(), 1, content.size(), out);
        fclose(out);
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

const std::string not_found = "errno " + std::to_string(ENOENT);

std::vector<std::string> pairs_of(tqmap<tq_cfg_pair> *map) {
    std::vector<std::string> pairs;
    tqlist_for_each(map->list, [&](tq_cfg_pair *pair) {
        pairs.push_back(std::string(pair->key) + "=" + pair->value);
        return true;
    });
    return pairs;
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

} // namespace

TEST(CfgSplitLine, TrimsTheKeyOnlyAndRefusesLinesWithoutKey) {
    tq_cfg_pair *pair = nullptr;
    ASSERT_EQ(tq_cfg_split_line(" \tport num \t= 19540 =x \"q\" #c\r\n", &pair), 0);
    EXPECT_STREQ(pair->key, "port num");
    EXPECT_STREQ(pair->value, " 19540 =x \"q\" #c");
    tq_cfg_free_pair(pair);
    EXPECT_EQ(tq_cfg_split_line("no equals", &pair), -EINVAL);
    EXPECT_EQ(tq_cfg_split_line("=leading", &pair), -EINVAL);
    EXPECT_EQ(tq_cfg_split_line(nullptr, &pair), -EINVAL);
    EXPECT_EQ(tq_cfg_split_line("a=b", nullptr), -EINVAL);
    fail_each_allocation([&] { return tq_cfg_split_line("a=", &pair); });
    EXPECT_STREQ(pair->value, "");
    tq_cfg_free_pair(pair);
}

TEST_F(CfgFile, SeekStopsJustAfterTheHeaderAndNoSectionStaysPut) {
    FILE *in = fopen(write("a=1\n[one]\nb=2\n[two] tail\nc=3\n"), "r");
    EXPECT_EQ(tq_cfg_seek_section(in, nullptr), 0);
    EXPECT_EQ(tq_cfg_seek_section(in, ""), 0);
    EXPECT_EQ(ftell(in), 0);
    ASSERT_EQ(tq_cfg_seek_section(in, "two"), 0);
    char line[16];
    ASSERT_NE(fgets(line, sizeof line, in), nullptr);
    EXPECT_STREQ(line, "c=3\n");
    EXPECT_EQ(tq_cfg_seek_section(in, "one"), -ENOENT);
    EXPECT_EQ(tq_cfg_seek_section(nullptr, "x"), -EINVAL);
    fclose(in);
}

TEST_F(CfgFile, GetIniStringFollowsTheFileSyntax) {
    write("  portnum = 19540\r\n\r\nproduct=\n=ignored\n#hostname=x\nk=first\nk=second\n"
          "[ abc "
          "]\nk=spaced\n[ABC]\nk=upper\n[abc]junk\nk=exact\nonly=here\n[next]\nn=1\nlast="
          "unterminated");
    EXPECT_EQ(value(nullptr, "portnum"), " 19540");
    EXPECT_EQ(value("", "product"), "");
    EXPECT_EQ(value(nullptr, "ignored"), not_found);
    EXPECT_EQ(value(nullptr, "hostname"), not_found);
    EXPECT_EQ(value(nullptr, "#hostname"), "x");
    EXPECT_EQ(value(nullptr, "k"), "first");
    EXPECT_EQ(value(nullptr, "only"), not_found);
    EXPECT_EQ(value("abc", "k"), "exact");
    EXPECT_EQ(value(" abc ", "k"), "spaced");
    EXPECT_EQ(value("Abc", "k"), not_found);
    EXPECT_EQ(value("abc", "n"), not_found);
    EXPECT_EQ(value("next", "last"), "unterminated");
}

TEST_F(CfgFile, GetIniStringFailures) {
    char *found = nullptr;
    EXPECT_EQ(tq_cfg_get_ini_string(nullptr, nullptr, "a", &found), -EINVAL);
    EXPECT_EQ(tq_cfg_get_ini_string(write("a=1\n"), nullptr, nullptr, &found), -EINVAL);
    EXPECT_EQ(tq_cfg_get_ini_string(path_.c_str(), nullptr, "a", nullptr), -EINVAL);
    EXPECT_EQ(tq_cfg_get_ini_string("/nonexistent/dyptest", nullptr, "a", &found), -EIO);
    write("x=0\n[s]\nlong_key_that_grows_the_line=v\nk=value\n");
    fail_each_allocation([&] { return tq_cfg_get_ini_string(path_.c_str(), "s", "k", &found); });
    EXPECT_STREQ(found, "value");
    tq_cfg_release_string(found);
}

TEST_F(CfgFile, GetSectionKeepsFileOrderAndDuplicatesOfTheFirstOccurrence) {
    write("top=0\n[s]\na=1\nnoise\nb = 2\na=3\n[t]\nc=4\n[s]\nd=5\n");
    tqmap<tq_cfg_pair> *map = nullptr;
    ASSERT_EQ(tq_cfg_get_section(path_.c_str(), "s", &map), 0);
    EXPECT_EQ(pairs_of(map), (std::vector<std::string>{"a=1", "b= 2", "a=3"}));
    EXPECT_STREQ(tqmap_find(map, "a")->item->value, "1");
    tq_cfg_release_section(map);
    fail_each_allocation([&] { return tq_cfg_get_section(path_.c_str(), nullptr, &map); });
    EXPECT_EQ(pairs_of(map), std::vector<std::string>{"top=0"});
    tq_cfg_release_section(map);
}

TEST_F(CfgFile, SectionNamesInFileOrderWithoutTheUnnamedPart) {
    write("a=1\n[one]\n[ two ]x\n [no]\n[one]\n[unclosed\n");
    tqlist<char> *names = nullptr;
    fail_each_allocation([&] { return tq_cfg_get_section_list(path_.c_str(), &names); });
    std::vector<std::string> listed;
    tqlist_for_each(names, [&](char *name) {
        listed.push_back(name);
        return true;
    });
    EXPECT_EQ(listed, (std::vector<std::string>{"one", " two ", "one"}));
    tq_cfg_release_section_list(names);
}

TEST_F(CfgFile, SectionAccessFailures) {
    tqmap<tq_cfg_pair> *map = nullptr;
    tqlist<char> *names = nullptr;
    EXPECT_EQ(tq_cfg_get_section(write("[s]\na=1\n"), "t", &map), -ENOENT);
    EXPECT_EQ(tq_cfg_get_section("/nonexistent/dyptest", "s", &map), -EIO);
    EXPECT_EQ(tq_cfg_get_section(nullptr, "s", &map), -EINVAL);
    EXPECT_EQ(tq_cfg_get_section(path_.c_str(), "s", nullptr), -EINVAL);
    EXPECT_EQ(tq_cfg_get_section_list("/nonexistent/dyptest", &names), -EIO);
    EXPECT_EQ(tq_cfg_get_section_list(path_.c_str(), nullptr), -EINVAL);
    EXPECT_EQ(map, nullptr);
    EXPECT_EQ(names, nullptr);
    tq_cfg_release_section(nullptr);
    tq_cfg_release_section_list(nullptr);
}

namespace {
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

TEST_F(CfgFile, SetStringsReplacesTheKeyInEverySectionAndKeepsTheRest) {
    write("[x]\r\na=1\r\n\r\nb=2\r\n[y]\na=5\na = 7\nplain\n");
    one_entry_map change("a", "9");
    fail_each_allocation(
        [&] { return tq_cfg_set_strings(path_.c_str(), dir_.c_str(), change.map); });
    EXPECT_EQ(read_file(path_), "[x]\na=9\nb=2\n[y]\na=9\na = 7\nplain\n");
    one_entry_map absent("z", "0"), untrimmed("a ", "8");
    ASSERT_EQ(tq_cfg_set_strings(path_.c_str(), dir_.c_str(), absent.map), 0);
    ASSERT_EQ(tq_cfg_set_strings(path_.c_str(), dir_.c_str(), untrimmed.map), 0);
    EXPECT_EQ(read_file(path_), "[x]\na=9\nb=2\n[y]\na=9\na =8\nplain\n");
}

TEST_F(CfgFile, SetStringsLeavesTheTemporaryFileWhenTheRenameFails) {
    struct stat here {
    }, shm{};
    if (stat(dir_.c_str(), &here) != 0 || stat("/dev/shm", &shm) != 0 || here.st_dev == shm.st_dev)
        GTEST_SKIP() << "needs /dev/shm on a file system of its own";
    write("a=1\n");
    one_entry_map change("a", "2");
    char shm_dir[] = "/dev/shm/dyptest-cfg-XXXXXX";
    ASSERT_NE(mkdtemp(shm_dir), nullptr);
    log_capture log;
    EXPECT_EQ(tq_cfg_set_strings(path_.c_str(), shm_dir, change.map), -1);
    std::vector<std::string> left = entries(shm_dir);
    ASSERT_EQ(left.size(), 1u);
    std::string temp = std::string(shm_dir) + "/" + left[0];
    EXPECT_EQ(left[0].rfind("conf.tmp.", 0), 0u);
    EXPECT_EQ(read_file(temp), "a=2\n");
    EXPECT_EQ(read_file(path_), "a=1\n");
    EXPECT_EQ(log.count(LOG_CRIT, "Rename config file fail master " + path_ + " tmp " + temp), 1);
    unlink(temp.c_str());
    rmdir(shm_dir);
}

TEST_F(CfgFile, SetStringsFailingOpens) {
    one_entry_map change("a", "2");
    EXPECT_EQ(tq_cfg_set_strings((dir_ + "/none").c_str(), dir_.c_str(), change.map), -ENOENT);
    write("a=1\n");
    EXPECT_EQ(tq_cfg_set_strings(path_.c_str(), (dir_ + "/none").c_str(), change.map), -ENOENT);
    EXPECT_EQ(tq_cfg_set_strings(nullptr, dir_.c_str(), change.map), -EINVAL);
    EXPECT_EQ(tq_cfg_set_strings(path_.c_str(), dir_.c_str(), nullptr), -EINVAL);
    EXPECT_EQ(read_file(path_), "a=1\n");
}
