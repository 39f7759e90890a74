// SPDX-License-Identifier: Apache-2.0
// capture_keeper.h: every packet that the module records reaches a file, whoever frees the buffer that it is in.
//
// The module frees captures by itself (a source ages, a day is over) and at an operator's word. Both happen while the
// monitor task runs or an operator's line does, and never while packets are handed over. So before either the keeper
// looks at the captures and remembers what they have recorded; one that is gone at the next look, or has begun anew, is
// written from memory and forgotten. It remembers no more captures than the module holds: the manual one and ten
// others. A new one is looked for only when the module has allocated a large block, and only where an alarm stands:
// there is no other way for one to begin. Used by: replay_command, live_command, the console. Uses: run (alarms,
// packets), captures_folder, the clock. Thread: the driving one, with no lock held.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "captures_folder.h"
#include "module_captures.h"
#include "run.h"

namespace host {

class CaptureKeeper {
public:
    // From now on; not at all without a folder.
    CaptureKeeper(const Run &run, CapturesFolder &folder);
    ~CaptureKeeper();
    CaptureKeeper(const CaptureKeeper &) = delete;
    CaptureKeeper &operator=(const CaptureKeeper &) = delete;

    // Before something that may free captures. Next to nothing when no packet has come since the last time.
    void look();

    // At the end: writes all that the module holds.
    void write_all();

private:
    void update(const CaptureKey &key, std::string &content);
    void find_new();

    const Run &run_;
    CapturesFolder &folder_;
    std::map<CaptureKey, std::string> held_;  // content, as far as it has been seen
    uint64_t packets_seen_ = 0;
    uint64_t large_blocks_seen_ = 0;
};

}  // namespace host
