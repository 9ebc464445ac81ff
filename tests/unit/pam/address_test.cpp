// Address helpers and the normalisation of the remote host.
#include "pam_test_util.hpp"

#include <gtest/gtest.h>

using namespace mg::pam;

namespace {

in_addr_t ip(const char *text) { return inet_addr(text); }
uint32_t hip(const char *text) { return ntohl(inet_addr(text)); }

// split_ip_subnet on a copy; {ok, low, high} with the range in host order.
struct Range {
    int ok;
    uint32_t low, high;
};
Range split(const char *text) {
    char buf[64];
    snprintf(buf, sizeof buf, "%s", text);
    uint32_t r[2] = {0xdead, 0xbeef};
    int ok = split_ip_subnet(r, buf);
    return {ok, r[0], r[1]};
}

TEST(DotQuad, OnlyFourPartsParse) {
    EXPECT_EQ(ip("10.1.2.3"), dot_quad_addr("10.1.2.3"));
    EXPECT_EQ(kNoAddr, dot_quad_addr("10.1"));
    EXPECT_EQ(kNoAddr, dot_quad_addr("somehost"));
    EXPECT_EQ(kNoAddr, dot_quad_addr("1.2.3.4.5"));
    EXPECT_EQ(kNoAddr, dot_quad_addr("1.2.3.x"));
    EXPECT_EQ(kNoAddr, dot_quad_addr(nullptr));
    // The broadcast address is indistinguishable from the failure value.
    EXPECT_EQ(kNoAddr, dot_quad_addr("255.255.255.255"));
}

TEST(SplitIpSubnet, PrefixesAndNetmasks) {
    for (const char *text : {"192.168.1.0/24", "192.168.1.7/24", "192.168.1.7/255.255.255.0"}) {
        Range r = split(text);
        EXPECT_EQ(1, r.ok) << text;
        EXPECT_EQ(hip("192.168.1.0"), r.low) << text;
        EXPECT_EQ(hip("192.168.1.255"), r.high) << text;
    }
    Range host = split("192.168.1.7/32");
    EXPECT_EQ(1, host.ok);
    EXPECT_EQ(hip("192.168.1.7"), host.low);
    EXPECT_EQ(hip("192.168.1.7"), host.high);
    Range all_ones = split("1.2.3.4/255.255.255.255");
    EXPECT_EQ(1, all_ones.ok);
    EXPECT_EQ(hip("1.2.3.4"), all_ones.low);
    EXPECT_EQ(hip("1.2.3.4"), all_ones.high);
    Range eight = split("10.9.8.7/8");
    EXPECT_EQ(hip("10.0.0.0"), eight.low);
    EXPECT_EQ(hip("10.255.255.255"), eight.high);
}

TEST(SplitIpSubnet, PrefixZeroMeansEverythingOnlyForTheZeroAddress) {
    Range any = split("0.0.0.0/0");
    EXPECT_EQ(1, any.ok);
    EXPECT_EQ(0u, any.low);
    EXPECT_EQ(0xFFFFFFFFu, any.high);
    Range odd = split("10.0.0.0/0");
    EXPECT_EQ(1, odd.ok);
    EXPECT_EQ(0u, odd.low);
    EXPECT_EQ(0u, odd.high);
}

TEST(SplitIpSubnet, Refusals) {
    for (const char *text : {"1.2.3.4/33", "1.2.3.4/", "1.2.3.4", "1.2/8", "host/8", "1.2.3.4/-1"})
        EXPECT_EQ(0, split(text).ok) << text;
    // The text is cut at its '/', which is what gives an address rule its label.
    char name[] = "10.0.0.0/8";
    uint32_t r[2];
    ASSERT_EQ(1, split_ip_subnet(r, name));
    EXPECT_STREQ("10.0.0.0", name);
}

TEST(NetmaskToCidr, ContiguousAndNot) {
    EXPECT_EQ(24, netmask_to_cidr(ip("255.255.255.0")));
    EXPECT_EQ(0, netmask_to_cidr(ip("0.0.0.0")));
    EXPECT_EQ(32, netmask_to_cidr(0xFFFFFFFFu));
    EXPECT_EQ(8, netmask_to_cidr(ip("255.0.255.0")));
}

TEST(IsNum, SignAndDigits) {
    EXPECT_EQ(1, is_num("-3"));
    EXPECT_EQ(1, is_num("-"));
    EXPECT_EQ(1, is_num("42"));
    EXPECT_EQ(0, is_num("3a"));
    EXPECT_EQ(0, is_num(""));
    EXPECT_EQ(0, is_num("--1"));
    EXPECT_EQ(0, is_num(" 1"));
}

TEST(ConvertHostname, DottedQuadNeedsNoLookup) {
    EXPECT_EQ(ip("10.20.30.40"), convert_hostname("10.20.30.40"));
    EXPECT_EQ(kNoAddr, convert_hostname(nullptr));
}

TEST(CutDevicePrefix, AfterTheSecondSlash) {
    EXPECT_STREQ("pts/3", cut_device_prefix("/dev/pts/3"));
    EXPECT_STREQ("tty1", cut_device_prefix("/dev/tty1"));
    EXPECT_STREQ("/odd", cut_device_prefix("/odd"));
    EXPECT_STREQ("pts/0", cut_device_prefix("pts/0"));
    EXPECT_EQ(nullptr, cut_device_prefix(nullptr));
}

TEST(NormalizeRemoteHost, Ipv4AndHostNames) {
    auto r = pamtest::request("u", "sshd", "10.0.0.1", "pts/1");
    r.rhost_addr = kNoAddr;
    EXPECT_EQ(1, normalize_remote_host(r));
    EXPECT_EQ(ip("10.0.0.1"), r.rhost_addr);

    auto name = pamtest::request("u", "sshd", "some.host", "pts/1");
    EXPECT_EQ(1, normalize_remote_host(name));
    EXPECT_EQ(kNoAddr, name.rhost_addr);
    EXPECT_STREQ("some.host", name.rhost.get());

    auto none = pamtest::request("u", "sshd", nullptr, "pts/1");
    EXPECT_EQ(1, normalize_remote_host(none));
}

TEST(NormalizeRemoteHost, DisplaySuffixCutOnlyForDtlogin) {
    auto dt = pamtest::request("u", "dtlogin", "10.0.0.2:0", "pts/1");
    dt.rhost_addr = kNoAddr;
    EXPECT_EQ(1, normalize_remote_host(dt));
    EXPECT_STREQ("10.0.0.2", dt.rhost.get());
    EXPECT_EQ(ip("10.0.0.2"), dt.rhost_addr);

    auto ssh = pamtest::request("u", "sshd", "host:0", "pts/1");
    EXPECT_EQ(1, normalize_remote_host(ssh));
    EXPECT_STREQ("host:0", ssh.rhost.get());
}

TEST(NormalizeRemoteHost, OnlyOneIpv6PatternIsAccepted) {
    auto carried = pamtest::request("u", "sshd", "::ffff:0:10.0.0.1", "pts/1");
    carried.rhost_addr = kNoAddr;
    EXPECT_EQ(1, normalize_remote_host(carried));
    EXPECT_STREQ("10.0.0.1", carried.rhost.get());
    EXPECT_EQ(ip("10.0.0.1"), carried.rhost_addr);

    for (const char *host : {"::ffff:10.0.0.1", "::1", "fe80::1", "2001:db8::5"}) {
        auto r = pamtest::request("u", "sshd", host, "pts/1");
        EXPECT_EQ(0, normalize_remote_host(r)) << host;
    }
}

}  // namespace
