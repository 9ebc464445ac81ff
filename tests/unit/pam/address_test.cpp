// Address helpers. How the module normalises a remote host (display suffix,
// the one IPv6 form, host names) is checked end to end by the system tests.
#include "pam_test_util.hpp"

#include <gtest/gtest.h>

using namespace mg::pam;

namespace {

in_addr_t ip(const char *text) { return inet_addr(text); }
uint32_t hip(const char *text) { return ntohl(inet_addr(text)); }

TEST(DotQuad, OnlyFourNumericPartsParse) {
    EXPECT_EQ(ip("10.1.2.3"), dot_quad_addr("10.1.2.3"));
    EXPECT_EQ(ip("10.20.30.40"), convert_hostname("10.20.30.40"));  // no lookup needed
    for (const char *text : {"10.1", "somehost", "1.2.3.4.5", "1.2.3.x", "255.255.255.255"})
        EXPECT_EQ(kNoAddr, dot_quad_addr(text)) << text;  // broadcast equals the failure value
    EXPECT_EQ(kNoAddr, dot_quad_addr(nullptr));
    EXPECT_EQ(kNoAddr, convert_hostname(nullptr));
}

TEST(SplitIpSubnet, RangesAndRefusals) {
    struct Case {
        const char *text;
        const char *low, *high;  // nullptr: refused
    };
    const Case cases[] = {
        {"192.168.1.0/24", "192.168.1.0", "192.168.1.255"},
        {"192.168.1.7/24", "192.168.1.0", "192.168.1.255"},
        {"192.168.1.7/255.255.255.0", "192.168.1.0", "192.168.1.255"},
        {"192.168.1.7/32", "192.168.1.7", "192.168.1.7"},
        {"1.2.3.4/255.255.255.255", "1.2.3.4", "1.2.3.4"},
        {"10.9.8.7/8", "10.0.0.0", "10.255.255.255"},
        {"0.0.0.0/0", "0.0.0.0", "255.255.255.255"},
        {"10.0.0.0/0", "0.0.0.0", "0.0.0.0"},  // prefix 0 is everything only for 0.0.0.0 (kept)
        {"1.2.3.4/33", nullptr, nullptr},  {"1.2.3.4/", nullptr, nullptr},
        {"1.2.3.4", nullptr, nullptr},     {"1.2/8", nullptr, nullptr},
        {"host/8", nullptr, nullptr},      {"1.2.3.4/-1", nullptr, nullptr},
    };
    for (const Case &c : cases) {
        char buf[64];
        snprintf(buf, sizeof buf, "%s", c.text);
        uint32_t r[2] = {0xdead, 0xbeef};
        int ok = split_ip_subnet(r, buf);
        EXPECT_EQ(c.low != nullptr, ok == 1) << c.text;
        if (c.low == nullptr || ok != 1) continue;
        EXPECT_EQ(hip(c.low), r[0]) << c.text;
        // 255.255.255.255 cannot go through inet_addr: it is the failure value.
        EXPECT_EQ(std::string(c.high) == "255.255.255.255" ? 0xFFFFFFFFu : hip(c.high), r[1]) << c.text;
    }
    // The text is cut at its '/', which is what gives an address rule its label.
    char name[] = "10.0.0.0/8";
    uint32_t r[2];
    ASSERT_EQ(1, split_ip_subnet(r, name));
    EXPECT_STREQ("10.0.0.0", name);
}

TEST(SmallParsers, NetmaskNumbersAndDevices) {
    EXPECT_EQ(24, netmask_to_cidr(ip("255.255.255.0")));
    EXPECT_EQ(0, netmask_to_cidr(0));
    EXPECT_EQ(32, netmask_to_cidr(0xFFFFFFFFu));
    EXPECT_EQ(8, netmask_to_cidr(ip("255.0.255.0")));  // counts up to the first gap

    for (const char *yes : {"-3", "-", "42"}) EXPECT_EQ(1, is_num(yes)) << yes;
    for (const char *no : {"3a", "", "--1", " 1"}) EXPECT_EQ(0, is_num(no)) << no;

    EXPECT_STREQ("pts/3", cut_device_prefix("/dev/pts/3"));
    EXPECT_STREQ("tty1", cut_device_prefix("/dev/tty1"));
    EXPECT_STREQ("/odd", cut_device_prefix("/odd"));
    EXPECT_STREQ("pts/0", cut_device_prefix("pts/0"));
    EXPECT_EQ(nullptr, cut_device_prefix(nullptr));
}

}  // namespace
