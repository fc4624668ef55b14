#include "ds/walk.h"
#include "support/fake_ds_module.h"

TEST(ModuleRegistry, AppendsInOrderRefusesANullNameAndUnregistersTheFirstEntry) {
    fake_module twice("twice"), unnamed(""), nameless(nullptr);
    EXPECT_EQ(dypd_ds_register_module(twice.get()), -ENOMEM); // no list yet
    module_list_scope list({&twice, &unnamed, &twice});
    EXPECT_EQ(dypd_ds_register_module(nameless.get()), -EINVAL);
    EXPECT_EQ(dypd_ds_unregister_module(twice.get()), 0);
    EXPECT_EQ(dypd_ds_unregister_module(nameless.get()), -ENOENT);
    std::vector<dypd_ds_module *> listed;
    tqlist_for_each(dypd_ds_modlist, [&](dypd_ds_module *module) {
        listed.push_back(module);
        return true;
    });
    EXPECT_EQ(listed, (std::vector<dypd_ds_module *>{unnamed.get(), twice.get()}));
}

TEST(ModuleWalk, FetchClampsTheRequestDistrustsInflatedCountsAndLogsRealFailures) {
    fake_module module("broken");
    for (int i = 0; i < 10; ++i)
        module.interfaces.push_back({"if" + std::to_string(i)});
    module.names_result = 1000; // more names than slots
    dypd_ds_name_list names = {};
    EXPECT_EQ(dypd_ds_fetch_names(module.get(), 4, &names), 4);
    EXPECT_EQ(module.names_asked, std::vector<uint16_t>{4});
    EXPECT_STREQ(names.names[3], "if3");
    dyp_free(names.names);
    log_capture log;
    for (int failure : {-ENOENT, -EPERM}) {
        module.names_result = failure;
        EXPECT_EQ(dypd_ds_fetch_names(module.get(), 255, &names), 0);
    }
    EXPECT_EQ(log.count(LOG_ERR, "cannot get interface names module broken (err: " +
                                     std::to_string(-EPERM) + ")"),
              1);
    EXPECT_EQ(log.lines().size(), 1u);
}
