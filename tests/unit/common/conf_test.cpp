#include <mossgrove/common.h>

#include <gtest/gtest.h>
#include <unistd.h>

#include "common/paths.hpp"
#include "testsupport.hpp"

using mgtest::TempDir;
using mgtest::write_file;

namespace {

struct Conf : ::testing::Test {
    void TearDown() override {
        close_conf();
        mg::paths::override_for_tests(nullptr, nullptr, nullptr);
    }
    // Loads content as a configuration file; the result of read_conf.
    int load(const std::string &content) {
        write_file(dir_ / "test.conf", content);
        return read_conf((dir_ / "test.conf").c_str());
    }
    std::string value_of(const char *key) {
        char value[1024] = "junk";
        return get_conf(key, value) == 1 ? std::string(value) : "<missing:" + std::string(value) + ">";
    }
    TempDir dir_;
};

}  // namespace

TEST_F(Conf, EmptyOrMissingFilesFailAndKeepTheTable) {
    ASSERT_EQ(load("A 1\n"), 1);
    EXPECT_EQ(load(""), 0);
    EXPECT_EQ(load("# only\n\n# comments\n"), 0);
    for (const std::string &bad : {dir_ / "missing", dir_.path()}) EXPECT_EQ(read_conf(bad.c_str()), 0) << bad;
    EXPECT_EQ(value_of("A"), "1");
    EXPECT_EQ(close_conf(), 1);
    EXPECT_EQ(get_conf_ptr("A"), nullptr) << "no lookup reaches a freed table";
}

TEST_F(Conf, LineFormsAndHostileInput) {
    // Keys are case-insensitive, a key alone has an empty value, the first of
    // repeated keys wins, and not found empties the caller's buffer.
    std::string text = "# a comment\n\nKEY1   value1   # trailing comment\nKEY2=value2\nKEY3 = value3\n"
                       "   # indented comment\nKEY4\nkey5#value5\nDup first\nDUP second\n\tKEY6\tvalue6\n";
    // Keys are cut to 255 bytes, values to 1023; a line longer than the
    // 2048-byte read has its tail read as a line of its own.
    const std::string key(300, 'K');
    text += key + " " + std::string(1500, 'v') + "\nLONG " + std::string(3000, 'x') + " tail\nNEXT ok\n";
    // NUL bytes end the text of their line; a key that ends the text has no value.
    text += std::string("NUL\0hidden value\n", 17) + std::string("NV v\0w\n", 7);
    for (int i = 0; i < 2000; ++i) text += "n" + std::to_string(i) + " value" + std::to_string(i) + "\n";
    // The last line has no newline and no value: nothing from earlier lines leaks in.
    text += "LAST";
    ASSERT_EQ(load(text), 1);
    EXPECT_EQ(get_conf_ptr(key.c_str()), nullptr);
    const std::pair<std::string, std::string> found[] = {
        {"KEY1", "value1"}, {"key2", "value2"}, {"KEY3", "value3"}, {"KEY4", ""}, {"KEY5", "value5"},
        {"dup", "first"}, {"KEY6", "value6"}, {"#", "<missing:>"}, {"KEY", "<missing:>"},
        {key.substr(0, 255), std::string(1023, 'v')}, {"LONG", std::string(1023, 'x')}, {"NEXT", "ok"},
        {"NUL", ""}, {"hidden", "<missing:>"}, {"NV", "v"}, {"n1999", "value1999"}, {"LAST", ""}};
    for (const auto &[k, value] : found) EXPECT_EQ(value_of(k.c_str()), value) << k;
    close_conf();  // read_conf never frees the table it replaces
    EXPECT_EQ(load("K v"), 1);
    EXPECT_EQ(value_of("K"), "v");
}

TEST_F(Conf, InstallationRoot) {
    const std::string evmg = dir_ / "evmg";
    mg::paths::override_for_tests(evmg.c_str(), nullptr, nullptr);
    char root[1024];
    EXPECT_EQ(MG_ERRNO_OF(get_mgroot(root, sizeof root)), MG_ERR_NO_EVMG) << "no file";

    write_file(evmg, "MG_ROOT=/opt/x/\n");
    ASSERT_EQ(get_mgroot(root, sizeof root), 0);
    EXPECT_STREQ(root, "/opt/x");
    EXPECT_EQ(get_conf_ptr("MG_ROOT"), nullptr) << "the table is closed again";
    ASSERT_EQ(get_mgroot(root, 4), 0);
    EXPECT_STREQ(root, "/op");

    for (const char *bad : {"MG_ROOT=/\n", "MG_ROOT\n", "OTHER=/x\n"}) {
        write_file(evmg, bad);
        EXPECT_EQ(MG_ERRNO_OF(get_mgroot(root, sizeof root)), MG_ERR_NO_MGROOT) << bad;
    }
    EXPECT_EQ(get_mgroot(root, 0), -1);
}

TEST_F(Conf, OnlyAnUnprivilegedCallerMayNameAnotherRoot) {
    ASSERT_EQ(getuid(), 0u);
    const std::string evmg = dir_ / "evmg";
    ASSERT_EQ(setenv(mg::paths::kEvmgEnv, evmg.c_str(), 1), 0);
    EXPECT_STREQ(mg::paths::evmg(), "/etc/.evmg") << "root ignores the environment";
    EXPECT_EQ(mgtest::run_in_child([&] {
        if (setuid(65534) != 0) return 2;
        if (evmg != mg::paths::evmg()) return 1;
        mg::paths::pin_system_defaults();  // once a login service has run
        return std::string("/etc/.evmg") == mg::paths::evmg() ? 0 : 3;
    }), 0);
    unsetenv(mg::paths::kEvmgEnv);
}
