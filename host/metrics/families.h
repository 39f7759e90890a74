// SPDX-License-Identifier: Apache-2.0
// families.h: a snapshot as Prometheus's metric families: names, units, help and labels stand here and nowhere else.
//
// No label has more values than there are ports, classes or verdicts, but for the source of a flood, whose number
// flooding_sources.h bounds. Rows without packets are left out. Used by: server. Pure.
#pragma once

#include <prometheus/metric_family.h>

#include <vector>

#include "metrics/snapshot.h"

namespace host {

std::vector<prometheus::MetricFamily> families(const Snapshot &snapshot);

}  // namespace host
