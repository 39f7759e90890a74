// SPDX-License-Identifier: Apache-2.0
// commands_session.cpp: "run", "help" and "quit": the replay's time and the console itself.
#include "clock/clock.h"
#include "console/command_rows.h"
#include "console/help.h"
#include "process.h"
#include "services/services.h"

namespace host::console {

namespace {

// Time is the replay's, and not yet while settings are made.
bool may_run(const Session &session) {
    if (session.replay == nullptr) {
        failed("time runs by itself here");
    } else if (!session.may_run) {
        failed("time does not run while settings are made");
    }
    return session.replay != nullptr && session.may_run;
}

Status run_seconds(Session &session, const Arguments &arguments) {
    if (!may_run(session)) {
        return Status::kFailed;
    }
    session.replay->run_for(arguments.number("seconds") * card::kNanosecondsPerSecond);
    return Status::kDone;
}

Status run_until_time(Session &session, const Arguments &arguments) {
    if (!may_run(session)) {
        return Status::kFailed;
    }
    const int64_t time_ns = *read_time(arguments.text("time"), session.replay->start_ns());
    if (time_ns < session.replay->now_ns()) {
        return failed(("it is " + card::time_text(session.replay->now_ns()) + " UTC already").c_str());
    }
    session.replay->run_until(time_ns);
    return Status::kDone;
}

Status run_until_alarm(Session &session, const Arguments &) {
    if (!may_run(session)) {
        return Status::kFailed;
    }
    const bool done = session.replay->run_until_alarm() || kept_signal() != 0;
    return done ? Status::kDone : failed("no alarm was raised up to the end");
}

// To the end of the fast period of the last packet, as a replay without an operator does.
Status run_until_end(Session &session, const Arguments &) {
    if (!may_run(session)) {
        return Status::kFailed;
    }
    session.replay->run_to_end();
    session.replay->run_for(session.replay->fast_period_rest_ns());
    return Status::kDone;
}

Status help(Session &, const Arguments &arguments) {
    const std::string verb = arguments.given("verb") ? arguments.text("verb") : std::string();
    const std::string text = help_text(verb);
    if (text.empty()) {
        return failed(("there is no command that begins with \"" + verb + "\"").c_str());
    }
    std::fputs(text.c_str(), stdout);
    return Status::kDone;
}

Status quit(Session &, const Arguments &) {
    return Status::kQuit;
}

}  // namespace

std::vector<Command> session_rows() {
    return {
        {"run <seconds>", "Let time go on, with the packets of that time", run_seconds},
        {"run until alarm", "Let time go on until an alarm is raised", run_until_alarm},
        {"run until end", "Replay the rest, to the end of the last packet's fast period", run_until_end},
        {"run until <time>", "Let time go on until then", run_until_time},
        {"help [<verb:text>]", "List the commands, or those that begin with a word", help},
        {"quit", "Leave the console", quit},
    };
}

}  // namespace host::console
