// SPDX-License-Identifier: Apache-2.0
#include "live/live_main.h"

#include "completion.h"

namespace host {

CLI::App *add_run(CLI::App &app, LiveOptions &options) {
    CLI::App *run = app.add_subcommand("run", "Protect this machine: its ports' packets, with the kernel as the chip");
    run->add_option("--port", options.ports,
                    "Interface to protect, as IFACE[=PORT[:VLAN]]: its port number [1, 2, ...] and the VLAN of frames "
                    "without a tag [1]; a bond is a trunk of its members; may be given again")
        ->required()
        ->allow_extra_args(false);
    run->add_option("--config", options.config_file, "File of operator's lines; SIGHUP runs those that are new");
    run->add_option("-x,--line", options.lines, "One such line, in quotes; may be given again")
        ->type_name(kLineType)
        ->allow_extra_args(false);
    run->add_flag("--generic", options.generic, "In front of the stack, for drivers without XDP");
    run->add_flag("--wait", options.waits_for_ports, "Go on where none of the ports can be protected yet");
    run->add_flag("--all", options.all,
                  "Every frame is for this processor, as on a port that carries punted packets only");
    run->add_option("--captures", options.captures_folder, "Folder that what the module records is written into");
    run->add_option("--captures-quota", options.captures_quota_mb, "Megabytes that the folder may hold [100]");
    run->add_option("--log", options.log_file, "File that every message is written to, behind what it holds");
    run->add_option("--events", options.events_file,
                    "File that events (alarms, rules, captures) are written to as they happen, one JSON object a line; "
                    "\"-\" = standard output, and nothing else there");
    run->add_option("--syslog", options.syslog,
                    "Where the same goes as syslog messages (RFC 5424): a socket's path such as /dev/log, or a server");
    run->add_option("--metrics", options.metrics,
                    "IPv4 address and port that a Prometheus may scrape, in figures, such as 127.0.0.1:9777")
        ->type_name("ADDRESS:PORT");
    run->add_option("--control", options.control, "Socket of the operators' terminals")->capture_default_str();
    run->add_option("--operators", options.operators, "Group whose members may give every line, beside root");
    run->add_option("--observers", options.observers, "Group whose members may look (show, help)");
    run->add_option("--stall", options.stall_s,
                    "Seconds that the process may be silent; then the kernel lets every packet pass")
        ->capture_default_str()
        ->check(CLI::Range(1U, 3600U));
    run->add_option("--chip-rules", options.chip_rules, "Rules that the kernel shall hold at most [1024]");
    run->add_option("--memory-budget", options.memory_budget_mb,
                    "Megabytes that the module may use; beyond them it takes no new flows and sources [no limit]");
    return run;
}

CLI::App *add_console(CLI::App &app, ConsoleOptions &options) {
    CLI::App *console = app.add_subcommand("console", "Operator's terminal to a running `anti-cpu run`");
    console->add_option("--control", options.control, "Its socket")->capture_default_str();
    console->add_option("-c,--line", options.lines, "Give this line and leave; may be given again")
        ->type_name(kLineType)
        ->allow_extra_args(false);
    console->add_flag("--json", options.json, "Show data in place of text");
    return console;
}

}  // namespace host
