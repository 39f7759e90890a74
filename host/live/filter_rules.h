// SPDX-License-Identifier: Apache-2.0
// filter_rules.h: the operator's permit and deny rules, as the module keeps them, for the kernel.
//
// What is compared is the module's own knowledge (rule_mask.h). Used by: live_card, kernel_test. Thread: the one that
// changes the rules.
#pragma once

#include <optional>
#include <vector>

#include "anti_cpu/types.h"
#include "chip/kernel/kernel_filters.h"

namespace host {

// Nothing: no received packet matches it, or it neither permits nor denies.
std::optional<card::KernelFilter> kernel_filter(const atc_filter_rule_t &rule);

// Those of both of the module's lists.
std::vector<card::KernelFilter> filter_rules();

}  // namespace host
