// dypctl: finds dypd boxes on the LAN and drives their commands.
#include <iostream>

#include "cli.h"

namespace {

using namespace dypctl;

const char FOOTER[] = R"(
HOST is a box's IPv4 address, the host name it advertises (found by a
discovery first, see --interface/--address) or a name the system resolves,
optionally with :PORT (default 19540). DEVICE is an interface name as the box
lists it (scanner2), serial:TEXT (the device with that serial number) or
usb:VVVV:PPPP (vendor and product id, hex).

examples:
  dypctl discover
  dypctl inventory --json
  dypctl status scanbox serial:NW410A00017
  dypctl hold 192.0.2.10 usb:1f3a:0410 --interval 2 --check 10

exit status: 0 success, 1 refused (NG, no such device, no or several
matches), 2 usage error, 3 timeout (no answer, no box found), 4 malformed
reply, 5 local error (socket, interface, name lookup).)";

// Edit distance, for "did you mean".
size_t distance(const std::string &a, const std::string &b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j)
        row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            size_t up = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] != b[j - 1])});
            diagonal = up;
        }
    }
    return row[b.size()];
}

// A hint for the first option the chosen command does not know, naming
// the closest one it does.
std::string suggestion(const CLI::App &app, int argc, char **argv) {
    const CLI::App *command = &app;
    for (int i = 1; i < argc && command == &app; ++i)
        for (const CLI::App *sub : app.get_subcommands({}))
            if (sub->get_name() == argv[i])
                command = sub;
    for (int i = 1; i < argc; ++i) {
        std::string word = argv[i];
        if (word.rfind("--", 0) != 0)
            continue;
        word = word.substr(2, word.find('=') - 2);
        std::string best;
        size_t best_distance = 3; // farther than this is no typo
        bool known = false;
        for (const CLI::Option *o : command->get_options()) {
            for (const std::string &name : o->get_lnames()) {
                known = known || name == word;
                size_t d = distance(word, name);
                if (d < best_distance) {
                    best_distance = d;
                    best = name;
                }
            }
        }
        if (!known && !best.empty())
            return " (did you mean --" + best + "?)";
    }
    return "";
}

// A failure after parsing: its text on standard error and, when JSON was
// asked for, also as a JSON object on standard output, so that a script
// reading the output sees why it ended.
int failure(int status, const std::string &message, bool as_json) {
    std::cerr << "dypctl: " << message << "\n";
    if (as_json)
        print_json({{"error", message}, {"exit_status", status}});
    return status;
}

int usage(const std::string &message, const std::string &command) {
    std::cerr << "dypctl: " << message << "\n(dypctl " << (command.empty() ? "" : command + " ")
              << "--help shows the usage)\n";
    return EXIT_USAGE;
}

} // namespace

int main(int argc, char **argv) {
    CLI::App app("dypctl: find dypd boxes on the LAN, list, take, keep and release their devices",
                 "dypctl");
    app.set_version_flag("--version", "dypctl " DYPCTL_VERSION);
    app.footer(FOOTER);
    app.require_subcommand(1);
    command_runner run;
    add_discovery_commands(app, run);
    add_device_commands(app, run);
    add_connection_commands(app, run);
    add_hold_command(app, run);

    std::string command;
    for (const CLI::App *sub : app.get_subcommands({}))
        for (int i = 1; i < argc && command.empty(); ++i)
            if (sub->get_name() == argv[i])
                command = argv[i];
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp &e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion &e) {
        return app.exit(e);
    } catch (const CLI::ParseError &e) {
        return usage(e.what() + suggestion(app, argc, argv), command);
    }
    bool as_json = false;
    for (int i = 1; i < argc; ++i)
        as_json = as_json || std::string(argv[i]) == "--json";
    try {
        return run();
    } catch (const std::invalid_argument &e) { // a HOST or DEVICE of the wrong form
        return usage(e.what(), command);
    } catch (const dyp::selection_error &e) {
        return failure(EXIT_REFUSED, e.what(), as_json);
    } catch (const dyp::timeout_error &e) {
        return failure(EXIT_TIMEOUT, std::string("timeout: ") + e.what(), as_json);
    } catch (const dyp::malformed_reply &e) {
        return failure(EXIT_MALFORMED, std::string("malformed reply: ") + e.what(), as_json);
    } catch (const std::exception &e) { // dyp::local_error: a failure on this host
        return failure(EXIT_LOCAL, e.what(), as_json);
    }
}
