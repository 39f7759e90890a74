// SPDX-License-Identifier: Apache-2.0
// main.cpp: the command line of anti-cpu.
//
// Reads the options and hands over to the command they name. The module has no end of its own: when the process ends,
// its threads stand still, since nobody moves the replay's time.
#include <CLI/CLI.hpp>
#include <cstdio>

#include "anti_cpu/version.h"
#include "completion.h"
#include "console/help.h"
#include "console/kinds.h"
#include "deny_widths.h"
#ifdef ATC_LIVE
#include "live/live_main.h"
#include "top/top_command.h"
#endif
#include "options.h"
#include "problems.h"
#include "process.h"
#include "replay_command.h"
#include "tune/tune_command.h"
#include "what_if.h"

namespace {

using namespace host;

// What packets are, and what the module is told before the first of them.
void add_common(CLI::App &command, ReplayOptions &options) {
    command
        .add_option("--port", options.ports,
                    "Port of the packets [1]; given again: of the next file. Further interfaces of a pcapng file are "
                    "the ports behind it")
        ->allow_extra_args(false);
    command.add_option("--vlan", options.vlan, "VLAN of frames without a tag [1]")->check(CLI::Range(0, 4095));
    command.add_option("--own-mac", options.own_mac, "The device's own MAC address: frames from it are sent packets")
        ->check([](const std::string &text) {
            return parse_mac(text) ? std::string() : "'" + text + "' is no MAC address (00:11:22:33:44:55)";
        });
    command.add_option("--fast-period", options.fast_period_s, "Length of the fast period in seconds [300]")
        ->check(CLI::Range(1U, UINT32_MAX));
    command.add_option("--config", options.config_file, "File of operator's lines, run before the first packet");
    command.add_option("-x,--line", options.lines, "One such line, in quotes; may be given again")
        ->type_name(kLineType)
        ->allow_extra_args(false);
}

void add_replay(CLI::App &app, ReplayOptions &options) {
    CLI::App *replay = app.add_subcommand("replay", "Show captured packets to the module and report what it finds");
    replay
        ->add_option("FILE", options.files, "Captures (pcap or pcapng, Ethernet); replayed in the order of their times")
        ->required();
    add_common(*replay, options);
    replay->add_option("--long-period", options.long_period_s, "Length of the long period in seconds [3600]")
        ->check(CLI::Range(1U, UINT32_MAX));
    replay->add_option("--drain", options.drain_s,
                       "Seconds that time runs on behind the last packet [to the end of the fast period]");
    replay->add_option("--chip-rules", options.chip_rules, "Rules that the switching chip has room for [1024]");
    replay->add_option("--memory-budget", options.memory_budget_mb,
                       "Megabytes that the module may use; beyond them it takes no new flows and sources [no limit]");
    replay->add_option("--captures", options.captures_folder, "Folder that what the module records is written into");
    replay->add_option("--captures-quota", options.captures_quota_mb, "Megabytes that the folder may hold [100]");
    replay->add_option("--log", options.log_file, "File that every message is written to");
    replay->add_option(
        "--events", options.events_file,
        "File that events (alarms, rules, captures) are written to as they happen, one JSON object a line; "
        "\"-\" = standard output, and nothing else there");
    replay->add_option("--syslog", options.syslog,
                       "Where the same goes as syslog messages (RFC 5424): a socket's path such as /dev/log, or a "
                       "server (10.0.0.1:514)");
    auto *rates = replay->add_option("--rates", options.rates_file,
                                     "File of packets and bytes by class and flow over time (CSV)");
    replay->add_option("--interval", options.interval_s, "Seconds between the rows of --rates [1]")
        ->check(CLI::Range(1U, UINT32_MAX))
        ->needs(rates);
    replay->add_option("--report", options.report_file, "File of the report with its charts (one page of HTML)");
    replay->add_option("--then", options.then_lines, "One such line behind the last packet; may be given again")
        ->type_name(kLineType)
        ->allow_extra_args(false);
    replay
        ->add_option("--what-if", options.what_if,
                     "One such line, in quotes; may be given again. The captures are replayed once without these lines "
                     "and once with them, and the difference is printed")
        ->type_name(kLineType)
        ->allow_extra_args(false);
    replay->add_option("--script", options.script_file,
                       "File of operator's lines that lead the replay (\"run 60\", \"run until alarm\"); what it "
                       "prints is the output");
    replay
        ->add_option("--until", options.until,
                     "Time (seconds, 03:47:00 or 2021-09-02T03:47:00) up to which packets are replayed first; the "
                     "operator gets the terminal there; may be given again")
        ->allow_extra_args(false)
        ->check([](const std::string &text) {
            return console::read_time(text, 0) ? std::string() : "'" + text + "' is no time before 2262";
        });
    replay->add_flag("--interactive", options.interactive,
                     "Hand the terminal to the operator at every --until and at the end");
    replay->add_flag("--all", options.all, "Print alarms as they come and every table, then the verdict");
    replay->add_flag("--quiet", options.quiet, "Print the summary only");
    replay->add_flag("--json", options.json, "Print one JSON object in place of messages and tables");
    for (const char *other : {"--captures", "--log", "--events", "--syslog", "--script", "--until", "--interactive",
                              "--all", "--quiet", "--rates", "--report", "--then"}) {
        replay->get_option("--what-if")->excludes(replay->get_option(other));
    }
}

void add_tune(CLI::App &app, TuneOptions &options) {
    CLI::App *tune =
        app.add_subcommand("tune", "Recommend limits from captures of good days, and of floods, and say what they do");
    tune->add_option("FILE", options.replay.files, "Captures of good days (pcap or pcapng, Ethernet); each on its own")
        ->required();
    tune->add_option("--flood", options.floods, "Capture of a flood; may be given again")->allow_extra_args(false);
    tune->add_option("--margin", options.margin,
                     "How many times what good captures need the limits are, where no flood is in the way [2]")
        ->check(CLI::Range(1.0, 1000.0));
    tune->add_option("--write", options.write_file, "File that the limits are written to, as lines for --config");
    add_common(*tune, options.replay);
    tune->add_flag("--json", options.replay.json, "Print one JSON object in place of tables");
}

// The exit status of a text that has been printed.
int finish_output(int status) {
    Problems problems;
    problems.check_written(stdout, "standard output");
    return status == kExitGood && problems.count() != 0 ? kExitRefused : status;
}

}  // namespace

// Everything that can be told to the user has been caught below; what is left (no memory) ends the process.
int main(int argc, char **argv) {  // NOLINT(bugprone-exception-escape)
    prepare_process();
    CLI::App app("anti-cpu: protection of a line card's CPU");
    app.require_subcommand(1);
    app.set_version_flag("--version", "anti-cpu " ATC_VERSION);
    ReplayOptions options;
    options.command.assign(argv, argv + argc);
    std::string verb;
    add_replay(app, options);
    TuneOptions tune_options;
    add_tune(app, tune_options);
    const CLI::App *reference = app.add_subcommand("reference", "Print the page on the operator's lines (Markdown)");
    const CLI::App *denies = app.add_subcommand("denies", "Print the page on how wide deny rules are (Markdown)");
    CLI::App *help = app.add_subcommand("help", "List the operator's lines");
    help->add_option("VERB", verb, "Only those that begin so");
    CLI::App *completion = app.add_subcommand("completion", "Print what completes the command line in bash");
    std::string what;
    std::string line;
    completion->add_option("WHAT", what, "bash: the script; line: what LINE may become")
        ->required()
        ->check(CLI::IsMember({"bash", "line"}));
    completion->add_option("LINE", line, "Beginning of an operator's line");
#ifdef ATC_LIVE
    LiveOptions live_options;
    ConsoleOptions console_options;
    const CLI::App *run = add_run(app, live_options);
    const CLI::App *console = add_console(app, console_options);
    TopOptions top_options;
    const CLI::App *top = add_top(app, top_options);
#endif
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return finish_output(app.exit(error) == 0 ? kExitGood : kExitUsage);
    }
    if (completion->parsed()) {
        std::fputs((what == "bash" ? bash_completion(app) : completed_lines(line)).c_str(), stdout);
        return finish_output(kExitGood);
    }
#ifdef ATC_LIVE
    if (run->parsed()) {
        return live_command(live_options);
    }
    if (console->parsed()) {
        return finish_output(console_command(console_options));
    }
    if (top->parsed()) {
        return finish_output(top_command(top_options));
    }
#endif
    if (app.got_subcommand("tune")) {
        return tune_command(tune_options);
    }
    if (!reference->parsed() && !help->parsed() && !denies->parsed()) {
        return options.what_if.empty() ? replay_command(options) : what_if_command(options);
    }
    const std::string text = help->parsed()     ? console::help_text(verb)
                             : denies->parsed() ? denies_page()
                                                : console::reference_page();
    std::fputs(text.c_str(), stdout);
    return finish_output(text.empty() ? kExitUsage : kExitGood);
}
