// card_run.h: a replay on the card for each input, the module as freshly started.
//
// The module starts once in a process, with its task; every further atc_init finds it running and only makes it as new
// (the link puts that in atc_init's place). The end of a CardRun discards all that the module and the chip hold, checks
// that no block of the card's allocator is left, and gives the clock back to the system, for libFuzzer's own times.
// Used by: the targets that drive the host. Uses: the module, the card, replay, support.h.
#pragma once

#include "capture_reader.h"
#include "event_log.h"
#include "replay.h"
#include "support.h"

class CardRun {
public:
    // Replays 'captures', which may be empty.
    explicit CardRun(host::CaptureSet &captures);
    ~CardRun();
    CardRun(const CardRun &) = delete;
    CardRun &operator=(const CardRun &) = delete;

    host::Replay &replay() { return replay_; }

private:
    host::EventLog events_;
    host::Replay replay_;
};
