/*
 * The hear-sense daemon: start-up, command line and shutdown.
 */
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <pipewire/pipewire.h>

#include <systemd/sd-bus.h>

#include <getopt.h>
#include <sched.h>
#include <sys/resource.h>

#include <vetto2.h>

#include "conf.hpp"
#include "context.hpp"
#include "dbus.hpp"
#include "feature-flag.hpp"
#include "log.hpp"
#include "loop.hpp"
#include "metrics.hpp"
#include "owned.hpp"
#include "plugin.hpp"
#include "registry.hpp"

namespace {

constexpr char metrics_dir[] = "/etc/hear-sense/metrics/";
constexpr char settings_dir[] = "/etc/hear-sense/plugin-settings";
constexpr char session_bus_variable[] = "HS_USE_SESSION_BUS";

/** Exit status without any clean-up: the device's rights can not be asked. */
constexpr int exit_no_rights = -1;

/** What start-up has made so far; null for what is still missing. */
struct daemon_parts {
	hs_loop *loop;
	/** Owned until the daemon context takes it over. */
	sd_bus *bus;
	pw_context *pipewire;
	pw_core *core;
	spa_hook core_listener;
	hs_registry *registry;
};

enum class command { run, help, fail };

void print_usage(const char *program)
{
	std::printf("%s [options]\n"
		    "  -h, --help                      Show this help\n"
		    "  -c, --config-path               Path to load configs (Default %s/)\n",
		    program, HS_CONF_DIR);
}

command parse_command_line(int argc, char *argv[], const char **config_path)
{
	static constexpr option options[] = {
		{"help", no_argument, nullptr, 'h'},
		{"config-path", required_argument, nullptr, 'c'},
		{nullptr, 0, nullptr, 0},
	};
	int c;
	while ((c = getopt_long(argc, argv, "hc:", options, nullptr)) != -1) {
		switch (c) {
		case 'h':
			return command::help;
		case 'c':
			*config_path = optarg;
			break;
		default:
			return command::fail;
		}
	}
	return command::run;
}

/* Each private bus takes four descriptors, and no code of ours uses select(). */
void raise_descriptor_limit()
{
	rlimit limit{};
	if (getrlimit(RLIMIT_NOFILE, &limit) < 0)
		return;
	limit.rlim_cur = limit.rlim_max;
	setrlimit(RLIMIT_NOFILE, &limit);
}

/*
 * The buffers of all streams come at about one moment, each announced by PipeWire's own thread. Where the loop
 * took the processor from that thread at the first, it would wake once for each.
 */
void let_buffers_gather()
{
	const sched_param none{};
	if (sched_setscheduler(0, SCHED_BATCH, &none) < 0)
		pw_log_debug("Could not have the loop wait for its turn: %m");
}

/** Returns a negative errno, or 0 or more with the bus open. */
int open_bus(sd_bus **bus)
{
	if (spa_streq(std::getenv(session_bus_variable), "true")) {
		const int r = sd_bus_open_user(bus);
		if (r < 0) {
			errno = -r;
			pw_log_error("Could not open session bus: %m");
		}
		return r;
	}
	const int r = sd_bus_open_system(bus);
	if (r < 0) {
		errno = -r;
		pw_log_error("Could not open system bus: %m");
	}
	return r;
}

bool init_rights()
{
	vetto2_error error{};
	if (vetto2_init(&error))
		return true;
	error.message[sizeof(error.message) - 1] = '\0';
	pw_log_error("Failed to initialize libvetto: code %d: %s", error.code, error.message);
	return false;
}

/* PipeWire's own end says so whatever the cause is; without a descriptor left, for one, it can not read on. */
bool is_lost(int res, const char *message)
{
	return res == -EPIPE || spa_streq(message, "connection error");
}

/* The dead connection would never announce another node, so the service manager starts us afresh. */
void on_core_error(void *data, uint32_t id, int, int res, const char *message)
{
	if (id != PW_ID_CORE || !is_lost(res, message))
		return;
	pw_log_error("PipeWire connection lost: %s", message ? message : std::strerror(-res));
	hs_loop_do_quit(static_cast<hs_loop *>(data), 0);
}

constexpr pw_core_events core_events = [] {
	pw_core_events events{};
	events.version = PW_VERSION_CORE_EVENTS;
	events.error = on_core_error;
	return events;
}();

bool connect_pipewire(daemon_parts *parts)
{
	pw_properties *props = pw_properties_new("context.num-data-loops", "0", nullptr);
	/* The clients' configuration of some systems silences the log, errors too. */
	const spa_log_level log_level = pw_log_level;
	parts->pipewire = pw_context_new(pw_main_loop_get_loop(parts->loop->main_loop), props, 0);
	pw_log_set_level(log_level);
	if (!parts->pipewire) {
		pw_log_error("Could not create PipeWire context: %m");
		return false;
	}
	parts->core = pw_context_connect(parts->pipewire, nullptr, 0);
	if (!parts->core) {
		pw_log_error(
			"Could not connect to PipeWire: %m. It must run before the daemon, in the directory that PIPEWIRE_RUNTIME_DIR or else XDG_RUNTIME_DIR names.");
		return false;
	}
	pw_core_add_listener(parts->core, &parts->core_listener, &core_events, parts->loop);
	return true;
}

/** False where the installed configurations can not be listed; a plug-in that does not load is just missing. */
bool load_plugins(hs_context *context, const char *config_path)
{
	const hs_properties_ptr configs(pw_properties_new(nullptr, nullptr));
	if (!hs_conf_load_config_list(config_path, configs.get()))
		return false;
	void *state = nullptr;
	while (const char *key = pw_properties_iterate(configs.get(), &state)) {
		const char *path = pw_properties_get(configs.get(), key);
		if (!path)
			break;
		hs_plugin_new(context, path, HS_CONF_SCHEMA_DIR, settings_dir);
	}
	return true;
}

/** Offers the service on the bus; a negative errno on failure. */
int publish_service(sd_bus *bus)
{
	hs_dbus_guard(bus);
	if (!hs_dbus_init_private_bus())
		return -1;
	pw_log_debug("add object manager");
	int r = sd_bus_add_object_manager(bus, nullptr, "/");
	if (r < 0) {
		errno = -r;
		pw_log_error("Could not add object manager: %m");
		return r;
	}
	pw_log_debug("request name");
	r = sd_bus_request_name(bus, HS_DBUS_SERVICE, 0);
	if (r < 0) {
		errno = -r;
		pw_log_error("Could not aquire name on bus: %m");
	}
	return r;
}

/** From the open bus to the end of the main loop; a negative result is a failure. */
int run_daemon(daemon_parts *parts, const char *config_path)
{
	if (!connect_pipewire(parts))
		return -1;
	let_buffers_gather();
	pw_registry *registry = pw_core_get_registry(parts->core, PW_VERSION_REGISTRY, 0);
	if (!registry) {
		pw_log_error("Could not get the registry of PipeWire: %m");
		return -1;
	}
	parts->registry = hs_registry_new(registry);
	sd_bus *bus = parts->bus;
	hs_context *context = hs_context_new(parts->pipewire, parts->core, parts->loop, parts->registry, bus);
	parts->bus = nullptr;
	hs_registry_add_listener(context->registry);
	hs_feature_flag_setup_dbus_signals(bus, parts->loop);
	context->preview_enabled = hs_feature_flag_is_preview_enabled(bus);

	if (!load_plugins(context, config_path))
		return 0;
	const int published = publish_service(bus);
	return published < 0 ? published : hs_loop_run(parts->loop, bus);
}

void shut_down(daemon_parts *parts)
{
	hs_metrics_deinit();
	hs_context_destroy();
	sd_bus_unref(parts->bus);
	hs_registry_destroy(&parts->registry);
	if (parts->core)
		pw_core_disconnect(parts->core);
	if (parts->pipewire)
		pw_context_destroy(parts->pipewire);
	hs_loop_destroy(parts->loop);
	pw_deinit();
	vetto2_release();
}

} // namespace

int main(int argc, char *argv[])
{
	pw_init(&argc, &argv);
	hs_log_init();
	pw_log_info("Starting.");

	const char *config_path = nullptr;
	switch (parse_command_line(argc, argv, &config_path)) {
	case command::help:
		print_usage(argv[0]);
		return EXIT_SUCCESS;
	case command::fail:
		hs_metrics_deinit();
		vetto2_release();
		return EXIT_FAILURE;
	case command::run:
		break;
	}

	raise_descriptor_limit();
	/* A file that may not grow is a write that fails, as on a full disk. */
	std::signal(SIGXFSZ, SIG_IGN);
	hs_metrics_init(metrics_dir);
	daemon_parts parts{};
	parts.loop = hs_loop_new();
	if (!parts.loop) {
		hs_metrics_deinit();
		vetto2_release();
		return EXIT_FAILURE;
	}

	int status = open_bus(&parts.bus);
	if (status >= 0) {
		if (!std::getenv(session_bus_variable) && !init_rights())
			return exit_no_rights;
		status = run_daemon(&parts, config_path);
	}
	shut_down(&parts);
	return status < 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}
