/* SPDX-License-Identifier: Apache-2.0 */
/* chip.c: rules are known by their whole description, in all four calls; ids, counters, refusals.
 *
 * Descriptions are built here once more, by the words of platform.h: a card is held against the contract, not against
 * the module's own builder. */
#include <string.h>

#include "anti_cpu/platform.h"
#include "check.h"

enum {
    FIELD_SRC_MAC = 0,
    FIELD_VLAN = 4,
    OP_DENY = 100,
    OP_COUNTED = 121,
    OP_KIND = 113,
    KIND_AUTOMATIC = 80001,
    PORTS_DELETE = 0,
    PORTS_INSTALL = 1,
    VALUE_SIZE = 32,
    ITEM_SIZE = 88,
    NEEDED = 100, /* automatic rules that the module installs at most */
    MOST = 8192,  /* rules that a chip is asked to take */
    GUARD = 0x5a5a5a5a,
};

/* What tells the rules of this file apart. */
struct rule {
    uint16_t address; /* the last two bytes of the source MAC address */
    uint16_t port;
    uint16_t second_port; /* 0: none */
    bool is_plain;        /* without the operation 121, an operator's deny */
};

/* The three buffers; one byte in front, so that nobody relies on alignment. */
struct description {
    uint8_t space[1 + 2 + 2 * ITEM_SIZE + 64 + 16];
    const uint8_t *match, *op, *port;
    uint32_t match_len, op_len, port_len;
};

static uint8_t *put(uint8_t *at, uint16_t number) {
    memcpy(at, &number, sizeof(number));
    return at + sizeof(number);
}

static uint8_t *put_item(uint8_t *at, uint16_t field, const void *value, uint16_t length) {
    at = put(put(put(put(at, field), 0), length), VALUE_SIZE);
    memcpy(at, value, length);
    memset(at + VALUE_SIZE, 0xff, VALUE_SIZE);
    return at + ITEM_SIZE - 8;
}

static void describe(struct description *to, const struct rule *rule, uint16_t kind) {
    const uint8_t mac[6] = {0x02, 0x00, 0x5e, 0x00, (uint8_t)(rule->address >> 8), (uint8_t)rule->address};
    const uint16_t vlan = 100;
    const uint32_t what_for = KIND_AUTOMATIC + rule->is_plain;
    memset(to, 0, sizeof(*to));
    uint8_t *at = to->space + 1;
    to->match = at;
    at = put_item(put(at, 2), FIELD_SRC_MAC, mac, sizeof(mac));
    at = put_item(at, FIELD_VLAN, &vlan, sizeof(vlan));
    to->match_len = (uint32_t)(at - to->match);

    to->op = at;
    at = put(put(put(at, rule->is_plain ? 2 : 3), OP_DENY), 0);
    if (!rule->is_plain) {
        at = put(put(at, OP_COUNTED), 0);
    }
    at = put(put(put(at, OP_KIND), 1), sizeof(what_for));
    memcpy(at, &what_for, sizeof(what_for));
    at += 16;
    to->op_len = (uint32_t)(at - to->op);

    to->port = at;
    at = put(put(put(at, kind), rule->second_port != 0 ? 2 : 1), rule->port);
    if (rule->second_port != 0) {
        at = put(at, rule->second_port);
    }
    to->port_len = (uint32_t)(at - to->port);
}

typedef int (*plain_call)(uint32_t, uint32_t, const void *, uint32_t, const void *, uint32_t, const void *, uint32_t,
                          void *);
typedef int (*look_up)(uint32_t, uint32_t, const void *, uint32_t, const void *, uint32_t, const void *, uint32_t,
                       uint32_t *);

static int call(plain_call function, const struct rule *rule, uint16_t kind) {
    struct description rules;
    describe(&rules, rule, kind);
    const int result =
        function(0, 0, rules.match, rules.match_len, rules.op, rules.op_len, rules.port, rules.port_len, NULL);
    memset(&rules, 0xee, sizeof(rules)); /* the chip has a copy of its own */
    return result;
}

static int install(const struct rule *rule) {
    return call(hw_driver_set_stream_qos_item, rule, PORTS_INSTALL);
}

static int remove_rule(const struct rule *rule) {
    return call(hw_driver_delete_qos_item_by_stream, rule, PORTS_DELETE);
}

/* The id, or GUARD when the word is left alone. */
static uint32_t id_of(look_up function, const struct rule *rule) {
    struct description rules;
    uint32_t id = GUARD;
    describe(&rules, rule, PORTS_INSTALL);
    function(0, 0, rules.match, rules.match_len, rules.op, rules.op_len, rules.port, rules.port_len, &id);
    return id;
}

static uint32_t entry_of(const struct rule *rule) {
    return id_of(hw_driver_lookup_entry_by_stream, rule);
}

static uint32_t stat_of(const struct rule *rule) {
    return id_of(hw_driver_lookup_stat_id_by_stream, rule);
}

/* Each differs from the first in one thing. */
static const struct rule rules[] = {
    {1, 3, 0, false}, {2, 3, 0, false}, {1, 4, 0, false}, {1, 3, 4, false}, {1, 3, 0, true},
};
static const char *const differs[] = {"", "match list", "port", "number of ports", "operations"};
enum {
    RULES = sizeof(rules) / sizeof(rules[0])
};

static void check_unknown(const char *promise) {
    check_promise("hw_driver_lookup_entry_by_stream", promise);
    check_that(entry_of(&rules[0]) == GUARD, "writes %u", entry_of(&rules[0]));
    check_promise("hw_driver_lookup_stat_id_by_stream", promise);
    check_that(stat_of(&rules[0]) == GUARD, "writes %u", stat_of(&rules[0]));
    check_promise("hw_driver_delete_qos_item_by_stream", "a negative number for a rule that is not there");
    const int result = remove_rule(&rules[0]);
    check_that(result < 0, "%d", result);
}

static void check_ids(void) {
    uint32_t ids[RULES][2];
    for (unsigned i = 0; i < RULES; i++) {
        ids[i][0] = entry_of(&rules[i]);
        ids[i][1] = stat_of(&rules[i]);
    }
    check_promise("hw_driver_lookup_entry_by_stream", "another id than 0 for each rule, and always the same");
    for (unsigned i = 0; i < RULES; i++) {
        check_that(ids[i][0] != GUARD && ids[i][0] != 0, "%s for rule %u", ids[i][0] == 0 ? "0" : "nothing", i + 1);
        check_that(entry_of(&rules[i]) == ids[i][0], "rule %u: %u, then %u", i + 1, ids[i][0], entry_of(&rules[i]));
        for (unsigned k = 0; k < i; k++) {
            check_that(ids[i][0] != ids[k][0], "rules that differ in %s share %u", differs[i], ids[i][0]);
        }
    }
    check_promise("hw_driver_lookup_stat_id_by_stream", "an id for each rule, and always the same");
    for (unsigned i = 0; i < RULES; i++) {
        check_that(ids[i][1] != GUARD, "nothing for rule %u", i + 1);
        check_that(stat_of(&rules[i]) == ids[i][1], "rule %u: %u, then %u", i + 1, ids[i][1], stat_of(&rules[i]));
        for (unsigned k = 0; k < i; k++) {
            check_that(ids[i][1] != ids[k][1], "rules that differ in %s share %u", differs[i], ids[i][1]);
        }
    }
    check_promise("hw_driver_get_stat_by_stat_id", "0, and 0 packets of a rule that is new");
    for (unsigned i = 0; i < RULES; i++) {
        atc_stat_hw_t stat = {UINT64_MAX, UINT64_MAX};
        const int result = hw_driver_get_stat_by_stat_id(ids[i][1], &stat);
        check_that(result == 0 && stat.packets != UINT64_MAX, "rule %u: %d, or the record is left alone", i + 1,
                   result);
        check_that(stat.packets == 0, "rule %u: %llu packets", i + 1, (unsigned long long)stat.packets);
    }
}

static void check_removal(void) {
    check_promise("hw_driver_delete_qos_item_by_stream", "0; that rule goes, and no other");
    uint32_t others[RULES];
    for (unsigned i = 0; i < RULES; i++) {
        others[i] = entry_of(&rules[i]);
    }
    const uint32_t gone = stat_of(&rules[0]);
    const int result = remove_rule(&rules[0]);
    check_that(result == 0, "%d for a rule that is there", result);
    for (unsigned i = 1; i < RULES; i++) {
        check_that(entry_of(&rules[i]) == others[i], "the rule that differs in %s goes with it", differs[i]);
    }
    check_unknown("leaves the word alone when the rule has gone");
    check_promise("hw_driver_get_stat_by_stat_id", "leaves the record alone when the rule has gone");
    atc_stat_hw_t stat = {GUARD, GUARD};
    hw_driver_get_stat_by_stat_id(gone, &stat);
    check_that(stat.packets == GUARD, "%llu packets", (unsigned long long)stat.packets);
    check_promise("hw_driver_set_stream_qos_item", "the same rule can be installed again");
    check_that(install(&rules[0]) == 0 && entry_of(&rules[0]) != GUARD, "refused, or not known then");
    for (unsigned i = 0; i < RULES; i++) {
        remove_rule(&rules[i]);
    }
}

static void check_room(void) {
    check_promise("hw_driver_set_stream_qos_item", "a negative number when there is no room, and no rule then");
    struct rule rule = {0, 3, 0, false};
    int result = 0;
    while (rule.address < MOST && (result = install(&rule)) == 0) {
        rule.address++;
    }
    check_that(result <= 0, "%d for rule %u", result, rule.address + 1u);
    check_that(result == 0 || entry_of(&rule) == GUARD, "rule %u is refused and there", rule.address + 1u);
    check_that(rule.address >= NEEDED, "room for %u; the module installs up to %d", rule.address, NEEDED);
    check_note(result == 0 ? "took %u, and was not full" : "room for %u", rule.address);
    check_promise("hw_driver_delete_qos_item_by_stream", "0 for each of them");
    while (rule.address > 0) {
        rule.address--;
        check_that(remove_rule(&rule) == 0, "rule %u stays", rule.address + 1u);
    }
}

void check_chip(void) {
    check_unknown("leaves the word alone for a rule that is not there");
    check_promise("hw_driver_set_stream_qos_item", "0, or a negative number when it is refused");
    const int result = install(&rules[0]);
    check_that(result <= 0, "%d", result);
    if (result != 0) {
        check_that(entry_of(&rules[0]) == GUARD, "refused, and there");
        check_not_tried("this chip takes no rules; software denies work all the same");
        return;
    }
    check_promise("hw_driver_set_stream_qos_item", "a negative number for what is installed already");
    const int again = install(&rules[0]);
    check_that(again < 0, "%d", again);
    check_promise("hw_driver_set_stream_qos_item", "rules that differ in anything are different rules");
    for (unsigned i = 1; i < RULES; i++) {
        check_that(install(&rules[i]) == 0, "the rule with another %s is refused", differs[i]);
    }
    check_ids();
    check_removal();
    check_room();
}
