// SPDX-License-Identifier: Apache-2.0
#include "verdict/senders.h"

#include <algorithm>

#include "anti_cpu/types.h"
#include "verdict/words.h"

namespace host {

namespace {

constexpr uint64_t kNamedFrom = 10;  // per cent of the packets; senders of less go unnamed

uint64_t per_cent(const Flood &flood, const FloodSource &source) {
    return source.traffic->packets * 100 / std::max<uint64_t>(flood.traffic->packets, 1);
}

std::string number_text(const AddressCount &count) {
    return (count.exact ? "" : "about ") + with_commas(count.number);
}

std::string spread_text(const Flood &flood, const FloodSources &sources, const char *what) {
    const FloodSource &top = sources.busiest.front();
    if (sources.number.number == 1) {
        return source_text(top.source);
    }
    const uint64_t share = per_cent(flood, top);
    if (share >= kNamedFrom) {
        const AddressCount others{sources.number.number - 1, sources.number.exact};
        return source_text(top.source) + " " + percent(top.traffic->packets, flood.traffic->packets) + ", " +
               number_text(others) + " more";
    }
    return number_text(sources.number) + " " + what + ", none over " + std::to_string(share + 1) + " %";
}

}  // namespace

bool is_unspecified(const Source &source) {
    return source.type != ATC_SRC_MAC && source.bytes == SourceBytes{};
}

std::string senders_text(const Flood &flood) {
    const FloodSources &addresses = flood.addresses;
    const FloodSources &macs = flood.macs;
    if (addresses.busiest.empty()) {
        return macs.busiest.empty() ? "unknown" : spread_text(flood, macs, "MAC addresses");
    }
    const Source &top = addresses.busiest.front().source;
    if (is_unspecified(top) && !macs.busiest.empty() && per_cent(flood, addresses.busiest.front()) >= 50) {
        return "no address yet (" + source_text(top) + "), " + spread_text(flood, macs, "MAC addresses");
    }
    const char *what = top.type == ATC_SRC_MAC ? "MAC addresses" : "addresses";
    std::string text = spread_text(flood, addresses, what);
    const bool is_spread = per_cent(flood, addresses.busiest.front()) < kNamedFrom;
    if (is_spread && !macs.busiest.empty() && per_cent(flood, macs.busiest.front()) >= 90) {
        text += ", via " + source_text(macs.busiest.front().source);
    }
    return text;
}

bool has_loud_senders(const Flood &flood) {
    return flood.sources_over > 0 && flood.over_packets * 2 >= flood.traffic->packets &&
           !is_unspecified(flood.addresses.busiest.front().source);
}

}  // namespace host
