#include <gtest/gtest.h>

#include "ds/walk.h"
#include "support/fake_ds_module.h"
#include "support/log_capture.h"

namespace {

std::vector<dypd_ds_module *> listed() {
    std::vector<dypd_ds_module *> modules;
    tqlist_for_each(dypd_ds_get_module_list(), [&](dypd_ds_module *module) {
        modules.push_back(module);
        return true;
    });
    return modules;
}

TEST(ModuleRegistry, AppendsInRegistrationOrderAndAcceptsAnEmptyName) {
    module_list_scope list;
    fake_module first("first"), second("");
    ASSERT_EQ(dypd_ds_register_module(first.get()), 0);
    ASSERT_EQ(dypd_ds_register_module(second.get()), 0);
    EXPECT_EQ(listed(), (std::vector<dypd_ds_module *>{first.get(), second.get()}));
}

TEST(ModuleRegistry, RefusesANullNameAndLeavesTheListUnchanged) {
    module_list_scope list;
    log_capture log;
    fake_module nameless(nullptr);
    EXPECT_EQ(dypd_ds_register_module(nameless.get()), -EINVAL);
    EXPECT_TRUE(listed().empty());
    EXPECT_EQ(log.count(LOG_ERR, "module name is not specified"), 1);
}

TEST(ModuleRegistry, FailsWithoutMemoryOrWithoutAList) {
    fake_module module("m");
    EXPECT_EQ(dypd_ds_register_module(module.get()), -ENOMEM);
    module_list_scope list;
    dyp_alloc_fail_after(1);
    EXPECT_EQ(dypd_ds_register_module(module.get()), -ENOMEM);
    dyp_alloc_fail_after(0);
    EXPECT_TRUE(listed().empty());
}

TEST(ModuleRegistry, UnregisterRemovesOnlyTheFirstEntryOfTheSameRecord) {
    module_list_scope list;
    fake_module twice("twice"), other("other");
    ASSERT_EQ(dypd_ds_register_module(twice.get()), 0);
    ASSERT_EQ(dypd_ds_register_module(other.get()), 0);
    ASSERT_EQ(dypd_ds_register_module(twice.get()), 0);
    EXPECT_EQ(dypd_ds_unregister_module(twice.get()), 0);
    EXPECT_EQ(listed(), (std::vector<dypd_ds_module *>{other.get(), twice.get()}));
}

TEST(ModuleRegistry, UnregisterOfAnAbsentModuleIsENOENT) {
    fake_module module("m"), stranger("stranger");
    EXPECT_EQ(dypd_ds_unregister_module(module.get()), -ENOENT); // no list
    module_list_scope list;
    EXPECT_EQ(dypd_ds_unregister_module(module.get()), -ENOENT); // empty
    ASSERT_EQ(dypd_ds_register_module(module.get()), 0);
    EXPECT_EQ(dypd_ds_unregister_module(stranger.get()), -ENOENT);
    EXPECT_EQ(listed().size(), 1u);
}

TEST(ModuleRegistryDeathTest, NullModuleStopsTheProcess) {
    EXPECT_DEATH((void)dypd_ds_register_module(nullptr), "mod != \\(\\(void \\*\\)0\\)");
    EXPECT_DEATH((void)dypd_ds_unregister_module(nullptr), "dypd_ds_unregister_module");
}

TEST(ModuleWalk, SkipsModulesLackingANeededSlot) {
    fake_module full("full"), partial("partial");
    partial.drop("get_interface_names");
    module_list_scope list({&partial, &full});
    std::vector<const char *> visited;
    dypd_ds_walk(DYPD_DS_OP_INTERFACE_NAMES | DYPD_DS_OP_INTERFACE_INFO,
                 [&](dypd_ds_module *module) {
                     visited.push_back(module->name);
                     return true;
                 });
    ASSERT_EQ(visited.size(), 1u);
    EXPECT_STREQ(visited[0], "full");
}

TEST(ModuleWalk, QuietCodesStayOutOfTheLog) {
    log_capture log;
    dypd_ds_log_failure(-ENOENT, dypd_ds_quiet::noent, "x %d", -ENOENT);
    dypd_ds_log_failure(-ENODEV, dypd_ds_quiet::nodev_noent, "x %d", -ENODEV);
    EXPECT_TRUE(log.lines().empty());
    dypd_ds_log_failure(-ENODEV, dypd_ds_quiet::noent, "module %s (err: %d)", "m", -ENODEV);
    EXPECT_EQ(log.count(LOG_ERR, "module m (err: -19)"), 1);
}

TEST(ModuleWalk, FetchClampsTheRequestAndDistrustsAnInflatedNameCount) {
    fake_module module("m");
    for (int i = 0; i < 10; ++i)
        module.interfaces.push_back({"if" + std::to_string(i)});
    module.names_overridden = true;
    module.names_result = 1000; // more names than slots
    dypd_ds_name_list names = {};
    EXPECT_EQ(dypd_ds_fetch_names(module.get(), 4, &names), 4);
    EXPECT_EQ(module.names_asked, std::vector<uint16_t>{4});
    EXPECT_STREQ(names.names[3], "if3");
    dyp_free(names.names);
}

TEST(ModuleWalk, FetchLogsCountAndNameFailuresWithTheModuleName) {
    log_capture log;
    fake_module module("broken");
    module.num_overridden = true;
    module.num_result = -EIO;
    dypd_ds_name_list names = {};
    EXPECT_EQ(dypd_ds_fetch_names(module.get(), 255, &names), 0);
    EXPECT_EQ(log.count(LOG_ERR, "cannot get the number of interfaces module broken (err: -5)"), 1);

    module.num_result = 2;
    module.names_overridden = true;
    module.names_result = -ENOENT;
    EXPECT_EQ(dypd_ds_fetch_names(module.get(), 255, &names), 0);
    module.names_result = -EPERM;
    EXPECT_EQ(dypd_ds_fetch_names(module.get(), 255, &names), 0);
    EXPECT_EQ(log.count(LOG_ERR, "cannot get interface names module broken"), 1);

    dyp_alloc_fail_after(1);
    EXPECT_EQ(dypd_ds_fetch_names(module.get(), 255, &names), 0);
    dyp_alloc_fail_after(0);
    EXPECT_EQ(log.count(LOG_ERR, "no memory for interface names num_entries 2 module broken"), 1);
}

} // namespace
