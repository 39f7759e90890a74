// dumps_test.cpp: the console dumps, to the character.
#include <algorithm>
#include <cstring>

#include "atc/trunk.h"
#include "fixture.h"

namespace {

using DumpsTest = ModuleTest;

std::string printed(int (*dump)()) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(dump(), 0);
    return testing::internal::GetCapturedStdout();
}

TEST_F(DumpsTest, FiltersListByList) {
    atc_filter_rule_t rule = {};
    rule.id = 7;
    rule.direction = ATC_DIRECTION_RX;
    rule.port = 3;
    rule.vlan = 100;
    rule.protocol = 6;
    rule.action = ATC_ACTION_DENY;
    std::memcpy(rule.src_mac, "\x00\x11\x22\x33\x44\xff", 6);
    std::memcpy(rule.dst_mac, "\x0a\x0b\x0c\x0d\x0e\x0f", 6);
    rule.src_ipv4 = 0xC0A80100;
    rule.dst_ipv4 = 0x0A000001;
    rule.src_port = 68;
    rule.dst_port = 65535;
    atc_api_cfg_filter_rule_add(&rule, 1);
    atc_filter_rule_t other = {};
    std::memcpy(other.src_ipv6, "\x20\x01\0\0\0\0\0\0\0\0\0\0\0\0\0\x07", 16);
    std::memset(other.dst_ipv6, 0xFF, 16);
    other.action = ATC_ACTION_PERMIT;
    atc_api_cfg_filter_rule_add(&other, 0);
    rule.action = 2;
    rule.id = 70;
    rule.ip_protocol = 17;
    rule.eth_type = 0x0800;
    ASSERT_EQ(atc_api_cfg_hw_filter_rule_add(&rule), 0);

    const std::string rule_lines =
        "src mac 00:11:22:33:44:ff dest mac 0a:0b:0c:0d:0e:0f\n\r"
        "src ipv4 c0a80100 dest ipv4 a000001\n\r"
        "src ipv6 :: dest ipv6 ::\n\r"
        "src port 68 dest port 65535\n\r";
    EXPECT_EQ(printed(atc_filter_show),
              "\n\rfilter id 0 direct 0 port 0 vlan 0 protocol 0 action 2\n\r"
              "src mac 00:00:00:00:00:00 dest mac 00:00:00:00:00:00\n\r"
              "src ipv4 0 dest ipv4 0\n\r"
              "src ipv6 2001::7 dest ipv6 ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff\n\r"
              "src port 0 dest port 0\n\r"
              "\n\rfilter id 7 direct 1 port 3 vlan 100 protocol 6 action 1\n\r" +
                  rule_lines + "\n\rfilter id 70 sdk_id " + std::to_string(rule.sdk_id) +
                  " port 3 vlan 100 eth_type 0x0800 ip_protocol 17 action 2\n\r" + rule_lines);
}

TEST_F(DumpsTest, LimitsOfEveryProtocol) {
    uint32_t value = 11;
    for (auto *set :
         {atc_api_set_protocol_fp_limit, atc_api_set_protocol_lp_limit, atc_api_set_protocol_deny_enable,
          atc_api_set_protocol_hw_deny_enable, atc_api_set_protocol_cap_enable, atc_api_set_protocol_src_fp_limit,
          atc_api_set_protocol_src_lp_limit, atc_api_set_protocol_src_deny_enable,
          atc_api_set_protocol_src_hw_deny_enable, atc_api_set_protocol_src_cap_enable}) {
        set(ATC_ARP, value++);
    }
    const std::string text = printed(atc_limit_show);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 58 * 16);
    EXPECT_NE(text.find("\n\rprotcol name arp \n\r"
                        "fp-limit 11 \n\rlp-limit 12 \n\rfp-limit-cfg 11 \n\rlp-limit-cfg 12 \n\r"
                        "deny 13 \n\rhw-deny 14 \n\rcap 15 \n\r"
                        "src-fp-limit 16 \n\rsrc-lp-limit 17 \n\rsrc-fp-limit-cfg 16 \n\rsrc-lp-limit-cfg 17 \n\r"
                        "src-deny 18 \n\rsrc-hw-deny 19 \n\rsrc-cap 20 \n\r"
                        "\n\rprotcol name pppoe \n\rfp-limit 30 \n\rlp-limit 20 \n\rfp-limit-cfg 0 \n\r"),
              std::string::npos)
        << text;
}

TEST_F(DumpsTest, Settings) {
    atc_api_set_upload_server_enable(1);
    atc_api_set_upload_server_ip(0xC0A80105);
    atc_api_set_upload_server_user("someone-with-a-name-far-too-long-to-keep");
    atc_api_set_upload_server_passwd("secret");
    atc_api_set_fast_period_time(1);
    atc_api_set_long_period_time(20);
    atc_api_set_ipattack(3);
    atc_api_set_icmpattack(4);
    atc_api_set_icmpattack_size(1500);
    state()->rule_hw_count = 5;
    state()->protocol_cap_cnt = 6;
    atc_api_set_global_enable(0);
    EXPECT_EQ(printed(atc_config_show),
              "\n\rglobal enable 0 \n\rupload enable 1 \n\rserver ip c0a80105 \n\r"
              "server user someone-with-a-name-far-too-lon \n\rserver passwd secret \n\r"
              "fast time 1 \n\rlong time 20 \n\ripattack 3 \n\ricmpattack 4 \n\ricmpattack_size 1500 \n\r"
              "rule_hw_count 5 \n\rprotocol_cap_cnt 6 \n\r");
    state()->rule_hw_count = state()->protocol_cap_cnt = 0;
}

TEST_F(DumpsTest, TrunksAndPorts) {
    fake().map_port(0, 5, 9);
    fake().unmap_port(1);
    fake().map_port(2, 6, 1);
    {
        const atc_guard_t guard;  // the ports are shown without it
        atc_trunk_add_pro(1000, 11);
        atc_trunk_add_pro(1000, 12);
        atc_trunk_add_pro(1001, 20);
        atc_trunk_del_pro(1001, 20);
        EXPECT_EQ(printed([] { return atc_log_port_show(2); }),
                  "\n\rlog port 0 ---->slot 5 port 9\n\rlog port 2 ---->slot 6 port 1\n\r\n\r");
    }
    EXPECT_EQ(printed(atc_trunk_show), "\n\r trunk id 1001 member:\n\r\n\r trunk id 1000 member:11 12 \n\r");
}

}  // namespace
