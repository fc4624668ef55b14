#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <unistd.h>

#include "daemon/dypd_priv.h"
#include "daemon/endpoints.h"
#include "ds/ds.h"
#include "lib/fd.h"
#include "lib/log.h"
#include "lib/process.h"
#include "lib/text.h"
#include "lib/tqstdio.h"
#include "protocol/command.h"
#include "protocol/identity.h"
#include "protocol/reply_queue.h"

namespace {

constexpr char PROGRAM_NAME[] = "dypd";
constexpr char PROGRAM_VERSION[] = "1.6.2";
constexpr char DEFAULT_CONFIG_PATH[] = "/etc/dypd.conf";
constexpr char DEFAULT_PRODUCT_NAME[] = "TQ Mirel 70";
constexpr int32_t DEFAULT_PRIMARY_PORT = 19540;
constexpr char SETTINGS_RULE[] = "--------------------------------";
// The -v line, which also begins the start-up line of the log.
constexpr auto VERSION_LINE =
    join_texts(PROGRAM_NAME, " version ", PROGRAM_VERSION, " (DYP ", DYPD_PROTOCOL_VERSION, ")\n");
constexpr int VERSION_LENGTH = static_cast<int>(VERSION_LINE.size() - 2); // no newline, no NUL

constexpr int EXIT_STATUS_OK = 0;
constexpr int EXIT_STATUS_FAILED = 1;
// Option parsing either lets start-up go on or ends it with a status.
constexpr int CONTINUE_STARTUP = -1;

void dypd_usage() {
    fprintf(stderr,
            "Usage: %s [options]\n"
            " -f config_file : Specifies the name of the config file.\n"
            "                  (default: %s)\n"
            " -d             : Debug mode. DYPD runs as a non-daemon.\n"
            " -v             : Show the version number.\n"
            " -h             : Show this message.\n"
            " -i ifname      : Set Network Interfaces Name.(ex.\"eth0,!br1,*\")\n",
            PROGRAM_NAME, DEFAULT_CONFIG_PATH);
}

void set_defaults(dypd_settings *settings) {
    memset(settings, 0, sizeof *settings);
    if (access(DEFAULT_CONFIG_PATH, R_OK) == 0)
        settings->config_path = DEFAULT_CONFIG_PATH;
    settings->bind_interfaces = network_interface_name;
    settings->wireless_interface = wireless_interface_name;
    settings->daemon_mode = 1;
    settings->primary_port = DEFAULT_PRIMARY_PORT;
    settings->ports = default_ports;
    settings->port_count = 2;

    dypd_identity &identity = settings->identity;
    copy_text(identity.product_name, DEFAULT_PRODUCT_NAME);
    // Without a system host name the field stays empty; unless the file
    // names one, that is an invalid configuration.
    char host_name[64] = {};
    if (gethostname(host_name, sizeof host_name) == 0)
        copy_text(identity.host_name, host_name);
}

int parse_options(int argc, char **argv, dypd_settings *settings) {
    int option;
    while ((option = getopt(argc, argv, "f:dvhi:w:")) != -1) {
        switch (option) {
        case 'f':
            if (access(optarg, R_OK) < 0) {
                fprintf(stderr, "Cannot access the config file %s (err: %d)\n", optarg, errno);
                return EXIT_STATUS_FAILED;
            }
            settings->config_path = optarg;
            break;
        case 'd':
            settings->daemon_mode = 0;
            settings->debug = 1;
            break;
        case 'v':
            return write(STDOUT_FILENO, VERSION_LINE.data(), VERSION_LENGTH + 1) < 0
                       ? EXIT_STATUS_FAILED
                       : EXIT_STATUS_OK;
        case 'h':
            dypd_usage();
            return EXIT_STATUS_OK;
        case 'i':
            settings->bind_interfaces = optarg;
            break;
        case 'w':
            settings->wireless_interface = optarg;
            break;
        default:
            dypd_usage();
            return EXIT_STATUS_FAILED;
        }
    }
    return CONTINUE_STARTUP;
}

void print_settings(const dypd_settings *settings, FILE *stream) {
    fprintf(stream,
            "%s\n"
            "Config File Path   = %s\n"
            "Product            = %s\n"
            "Host Name          = %s\n"
            "Bind Interface     = %s\n"
            "UDP Ports          = %d\n",
            SETTINGS_RULE, settings->config_path != nullptr ? settings->config_path : "",
            settings->identity.product_name, settings->identity.host_name,
            settings->bind_interfaces, settings->port_count);
    for (int32_t i = 0; i < settings->port_count; ++i)
        fprintf(stream, "   (%2d)UDP Port    = %d\n", i + 1, settings->ports[i]);
    fprintf(stream, "%s\n", SETTINGS_RULE);
}

void open_system_log(const dypd_settings *settings) {
    int options = LOG_PID;
    if (settings->daemon_mode == 0 && settings->debug != 0)
        options |= LOG_PERROR;
    openlog(PROGRAM_NAME, options, LOG_DAEMON);
    dyp_log(LOG_INFO, "%.*s started", VERSION_LENGTH, VERSION_LINE.data());
}

// dypd_signal_handler takes the signal number only; SA_SIGINFO asks for
// the three-argument form, so this adapter sits in between.
void hangup_action(int signal, siginfo_t *, void *) {
    dypd_signal_handler(signal);
}

// The action starts zeroed, which leaves its mask empty on Linux C
// libraries: no sigemptyset call is needed. One action serves both
// signals: sigaction copies it.
int install_signal_actions() {
    struct sigaction action {};
    action.sa_sigaction = hangup_action;
    action.sa_flags = SA_RESTART | SA_SIGINFO | SA_NOCLDSTOP;
    if (sigaction(SIGHUP, &action, nullptr) < 0)
        return -errno;
    action.sa_handler = SIG_IGN;
    action.sa_flags = SA_RESTART;
    if (sigaction(SIGPIPE, &action, nullptr) < 0)
        return -errno;
    return 0;
}

} // namespace

int dypd_initialise(dypd_settings *settings) {
    int result = dypd_build_endpoints(&dyp_daemon, settings);
    if (result == 0)
        result = dypd_command_init();
    if (result < 0) {
        // The process ends next; what was built is freed all the same, so
        // that a failed start leaves nothing behind.
        dypd_release_endpoints(&dyp_daemon);
        return result;
    }
    settings->primary->header.settings = dyp_daemon.header.settings;
    result = dypd_reply_queue_init();
    if (result == 0)
        result = dypd_ds_init(settings->primary);
    if (result == 0)
        result = install_signal_actions();
    if (result < 0)
        dypd_cleanup(&dyp_daemon);
    return result;
}

namespace {

void report_initialisation_failure(int status) {
    if (status == -EPERM)
        dyp_log(LOG_ERR, "no permission to execute %s", PROGRAM_NAME);
    dyp_log(LOG_ERR, "failed to initialize the daemon [%d]", status);
}

// Everything after the command line: returns the exit status.
int run_daemon(dypd_settings *settings) {
    int loaded = dypd_configfile_load(settings);
    if (loaded == -EFBIG) {
        fprintf(stderr, dypd_config_refused, settings->config_path,
                static_cast<unsigned>(TQ_CONFIG_MAX_SIZE));
        fprintf(stderr, "\n");
    }
    if (loaded < 0 || settings->identity.host_name[0] == '\0') {
        fprintf(stderr, "Detected invalid configuration\n");
        return EXIT_STATUS_FAILED;
    }
    if (settings->daemon_mode == 0)
        print_settings(settings, stderr);
    if (settings->daemon_mode != 0 && tq_daemonize(PROGRAM_NAME) < 0) {
        fprintf(stderr, "can not daemonize\n");
        return EXIT_STATUS_FAILED;
    }
    open_system_log(settings);

    // Held open, and so locked, until the process ends.
    unique_fd pid_file(tq_create_pid_file(PROGRAM_NAME));
    if (!pid_file.valid()) {
        dyp_log(LOG_ERR, "failed to create a pid file");
        return -EALREADY;
    }
    int status = dypd_initialise(settings);
    if (status < 0) {
        report_initialisation_failure(status);
        return status;
    }
    (void)dypd_run(&dyp_daemon, settings);
    dypd_cleanup(&dyp_daemon);
    return EXIT_STATUS_OK;
}

} // namespace

void dypd_set_defaults(dypd_settings *settings) {
    set_defaults(settings);
}

void dypd_print_settings(const dypd_settings *settings, FILE *stream) {
    print_settings(settings, stream);
}

int dypd_main(int argc, char **argv) {
    dypd_settings settings;
    set_defaults(&settings);
    int status = parse_options(argc, argv, &settings);
    if (status != CONTINUE_STARTUP)
        return status;
    status = run_daemon(&settings);
    dypd_configfile_release(&settings);
    // The log's socket is left to the exit, which closes it as closelog
    // would.
    return status;
}
