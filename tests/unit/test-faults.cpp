/*
 * A whole life of the daemon, over and over, each time with one call of sd-bus or PipeWire that fails.
 *
 * HS_FAULT_CALLS says how many calls of each place in the source are to fail one after the other; one, if
 * nothing is said.
 */
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>

#include "daemon-bed.hpp"
#include "dbus.hpp"
#include "descriptors.hpp"
#include "failing-calls.hpp"
#include "feature-flag.hpp"
#include "pcm-event.hpp"
#include "pcm.hpp"
#include "private-bus-daemon.hpp"
#include "source.hpp"

#if defined(__SANITIZE_ADDRESS__)
#define HS_LOOKS_FOR_LEAKS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define HS_LOOKS_FOR_LEAKS 1
#endif
#endif

#ifdef HS_LOOKS_FOR_LEAKS
#include <sanitizer/lsan_interface.h>
#endif

namespace {

using texts = std::vector<std::string>;

constexpr char node_name[] = "AudioDevice0Input0.Unprocessed";
constexpr char chain_path[] = "/com/orvel/HearSense/AudioDevice0Input0";
constexpr char source_path[] = "/com/orvel/HearSense/AudioDevice0Input0/Unprocessed";
constexpr char mover_path[] = "/com/orvel/HearSense/AudioDevice0Input0/Unprocessed/Mover";
constexpr char settings_interface[] = "com.orvel.HearSense.Settings.Mover";
constexpr char alarm_interface[] = "com.orvel.HearSense.Events.Mover.Alarm";
constexpr char level_interface[] = "com.orvel.HearSense.Events.Mover.Level";
constexpr char bands_interface[] = "com.orvel.HearSense.Events.Mover.Bands";
constexpr char properties_interface[] = "org.freedesktop.DBus.Properties";
constexpr char manager_interface[] = "org.freedesktop.DBus.ObjectManager";

/** One life, from the main loop to its end. */
class life
{
public:
	explicit life(const hs_private_bus_daemon &daemon) : bus_daemon{daemon}
	{
		for (const char *name : {"confs", "schemas", "settings", "metrics"})
			std::filesystem::create_directory(directory / name);
		hs_metrics_init((directory / "metrics").c_str());
		loop = hs_loop_new();
		if (loop)
			run();
		hs_metrics_deinit();
	}

	/** What went wrong but for what was logged. */
	texts troubles;
	/** The daemon has ended by itself. */
	bool has_quit = false;

private:
	void run()
	{
		pipewire = pw_context_new(pw_main_loop_get_loop(loop->main_loop), nullptr, 0);
		core = pw_context_connect_self(pipewire, nullptr, 0);
		pw_core_add_listener(core, &core_listener, &core_events, this);
		pw_registry *proxy = pw_core_get_registry(core, PW_VERSION_REGISTRY, 0);
		hs_calls_watch(core);
		hs_calls_watch(proxy);
		hs_registry *registry = hs_registry_new(proxy);
		hs_bus_ptr connection = bus_daemon.connect();
		bus = connection.get();
		const char *name = nullptr;
		sd_bus_get_unique_name(bus, &name);
		service = name;
		context = hs_context_new(pipewire, core, loop, registry, connection.release());
		serve(registry);

		client.reset();
		hs_context_destroy();
		hs_registry_destroy(&registry);
		pw_core_disconnect(core);
		pw_context_destroy(pipewire);
		hs_loop_destroy(loop);
	}

	void serve(hs_registry *registry)
	{
		hs_registry_add_listener(registry);
		hs_feature_flag_setup_dbus_signals(bus, loop);
		context->preview_enabled = hs_feature_flag_is_preview_enabled(bus);
		prepare_plugins();
		add_plugin("motion");
		add_plugin("sound");
		hs_dbus_guard(bus);
		if (!hs_dbus_init_private_bus())
			return;
		sd_bus_add_object_manager(bus, nullptr, "/");

		spa_source *start = pw_loop_add_idle(pw_main_loop_get_loop(loop->main_loop), true, on_start, this);
		hs_loop_run(loop, bus);
		pw_loop_destroy_source(pw_main_loop_get_loop(loop->main_loop), start);
	}

	void prepare_plugins()
	{
		host.prepare = [this](hs_handmade_plugin &made) {
			const bool is_motion = host.types.back().find("MOTION") != std::string::npos;
			made.interface.interface_name = is_motion ? "Mover" : "Hearer";
			made.settings = {hs_describe_int("Gain", 1), hs_describe_string("Room", "hall"),
					 hs_describe_bool("Loud", false)};
			made.events = {hs_describe_flags("Alarm", {{"Detected", false}, {"Report", false}}),
				       hs_describe_int("Level", 3), hs_describe_ints("Bands", {1, 2, 3})};
			made.add_info("Alarm").is_public = true;
			made.add_info("Level");
			made.add_info("Bands");
			made.present_settings = [](spa_pod_builder *builder) {
				spa_pod_builder_add_struct(builder, SPA_POD_String("IndicateTransientAudioDisturbance"),
							   SPA_POD_Long(3));
			};
		};
	}

	void add_plugin(const std::string &name)
	{
		char address[32];
		std::snprintf(address, sizeof(address), "%p",
			      static_cast<void *>(static_cast<hs_library_host *>(&host)));
		const std::string path = directory / ("confs/" + name + ".conf");
		hs_write_text(path, "plugin.config = { " HS_LIBRARY_HOST_KEY " = \"" + std::string{address} + "\" }\n");
		hs_plugin_new(context, path.c_str(), schemas.c_str(), settings.c_str());
	}

	static void on_start(void *data)
	{
		auto *self = static_cast<life *>(data);
		if (std::exchange(self->started, true))
			return;
		self->client = self->bus_daemon.connect();
		self->play();
		self->has_quit = !self->is_running();
		self->client.reset();
		hs_loop_do_quit(self->loop, 0);
	}

	bool is_running() const
	{
		return hs_calls_quits() == 0;
	}

	void play()
	{
		ask(client.get(), "/", "org.freedesktop.DBus.Peer", "Ping");
		pw_impl_metadata *metadata = pw_context_create_metadata(pipewire, "virtual-nodes", nullptr, 0);
		pw_impl_metadata_register(metadata, nullptr);
		settle();
		pw_impl_metadata_set_property(metadata, 0, "virtual_node_connection.AudioDevice0Input0",
					      "Spa:String:JSON",
					      R"({ "connection_type": "internal", "acoustic_id": "a1" })");
		pw_impl_node *node = pw_context_create_node(
			pipewire,
			pw_properties_new(PW_KEY_NODE_NAME, node_name, PW_KEY_MEDIA_CLASS, "Audio/Source", nullptr), 0);
		pw_impl_node_register(node, nullptr);
		settle();
		use_main_bus();
		use_private_buses();
		pw_impl_node_destroy(node);
		settle();
		pw_impl_metadata_destroy(metadata);
		settle();
		ask(client.get(), "/", "org.freedesktop.DBus.Peer", "Ping");
	}

	void use_main_bus()
	{
		sd_bus *main = client.get();
		ask(main, "/", manager_interface, "GetManagedObjects");
		for (const char *interface : {settings_interface, alarm_interface, HS_DBUS_INSTANCE_INTERFACE})
			ask(main, mover_path, properties_interface, "GetAll", "s", interface);
		ask(main, source_path, properties_interface, "GetAll", "s", HS_DBUS_SOURCE_INTERFACE);
		ask(main, chain_path, properties_interface, "GetAll", "s", HS_DBUS_CHAIN_INTERFACE);
		set(main, settings_interface, "Gain", "i", 5);
		set(main, settings_interface, "Room", "s", "attic");
		set(main, settings_interface, "Loud", "b", 1);
		set(main, settings_interface, "Enable", "b", 1);
		set(main, settings_interface, "Enable", "b", 0);
		ask(main, chain_path, HS_DBUS_CHAIN_INTERFACE, "IndicateTransientAudioDisturbance");
		ask(main, chain_path, HS_DBUS_CHAIN_INTERFACE, "IndicateContinuousAudioDisturbance", "b", 1);
		const std::string methods = std::string{alarm_interface} + ".Methods";
		ask(main, mover_path, methods.c_str(), "TriggerEvent");
		ask(main, "/", "org.freedesktop.DBus.Peer", "GetMachineId");
	}

	/** Two clients, so that the second gets what was made for the first. */
	void use_private_buses()
	{
		for (hs_bus_ptr &peer : peers) {
			const int fd = take_descriptor();
			if (fd >= 0)
				peer = connect(fd);
			ask(peer.get(), "/", manager_interface, "GetManagedObjects");
			enable(peer.get(), 1);
		}
		for (const char *interface : {level_interface, bands_interface})
			ask(peers[0].get(), mover_path, properties_interface, "GetAll", "s", interface);
		fire_events(7);
		fire_events(8);
		enable(peers[0].get(), 0);
		peers[0].reset();
		peers[1].reset();
		void *cursor = nullptr;
		step_until([&] { return !hs_loop_bus_iterate(loop, &(cursor = nullptr)); }, "the private buses to go");
	}

	/** Null where the daemon has closed its end already. */
	static hs_bus_ptr connect(int fd)
	{
		sd_bus *peer = nullptr;
		sd_bus_new(&peer);
		hs_bus_ptr owned{peer};
		sd_bus_set_fd(peer, fd, fd);
		return sd_bus_start(peer) < 0 ? nullptr : std::move(owned);
	}

	void enable(sd_bus *peer, int enabled)
	{
		for (const char *interface : {level_interface, bands_interface})
			set(peer, interface, "EnableEvent", "b", enabled);
	}

	/** As at the end of a buffer. */
	void fire_events(int32_t level)
	{
		hs_plugin *plugin;
		spa_list_for_each(plugin, &context->plugins, link) {
			hs_source *source;
			spa_list_for_each(source, &plugin->sources, link) {
				auto *made = static_cast<hs_handmade_plugin *>(source->interface->data);
				made->events[0] =
					hs_describe_flags("Alarm", {{"Detected", level % 2 == 1}, {"Report", true}});
				made->events[1] = hs_describe_int("Level", level);
				made->events[2] = hs_describe_ints("Bands", {level, 2, 3});
				hs_pcm_handle_events(source, true);
			}
		}
	}

	template <typename... Values>
	void ask(sd_bus *from, const char *path, const char *interface, const char *member, const char *types = "",
		 Values... values)
	{
		if (!from)
			return;
		hs_message_ptr call = new_call(from, path, interface, member);
		sd_bus_message_append(call.get(), types, values...);
		send(from, call.get(), member);
	}

	template <typename Value>
	void set(sd_bus *from, const char *interface, const char *name, const char *type, Value value)
	{
		ask(from, mover_path, properties_interface, "Set", "ssv", interface, name, type, value);
	}

	int take_descriptor()
	{
		hs_message_ptr call = new_call(client.get(), "/", HS_DBUS_SERVICE, "GetPrivateBus");
		sd_bus_message_append(call.get(), "s", "");
		const hs_message_ptr answer = send(client.get(), call.get(), "GetPrivateBus");
		int fd = -1;
		if (!answer || sd_bus_message_read(answer.get(), "h", &fd) < 0)
			return -1;
		return fcntl(fd, F_DUPFD_CLOEXEC, 0);
	}

	hs_message_ptr new_call(sd_bus *from, const char *path, const char *interface, const char *member) const
	{
		sd_bus_message *message = nullptr;
		sd_bus_message_new_method_call(from, &message, from == client.get() ? service.c_str() : nullptr, path,
					       interface, member);
		return hs_message_ptr{message};
	}

	/** The answer; null where none comes. */
	hs_message_ptr send(sd_bus *from, sd_bus_message *call, const char *member)
	{
		if (!is_running() || !from || sd_bus_is_open(from) <= 0)
			return nullptr;
		sd_bus_message *answer = nullptr;
		sd_bus_slot *slot = nullptr;
		if (sd_bus_call_async(from, &slot, call, on_answer, &answer, 0) < 0)
			return nullptr;
		const hs_slot_ptr owned{slot};
		step_until([&] { return answer || (from != client.get() && sd_bus_is_open(from) <= 0); }, member);
		return hs_message_ptr{answer};
	}

	static int on_answer(sd_bus_message *message, void *data, sd_bus_error *)
	{
		*static_cast<sd_bus_message **>(data) = sd_bus_message_ref(message);
		return 1;
	}

	/** Gives up where the daemon ends, or after some seconds. */
	void step_until(const std::function<bool()> &done, const std::string &what)
	{
		const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds{20};
		pw_loop *pw = pw_main_loop_get_loop(loop->main_loop);
		while (is_running()) {
			pw_loop_iterate(pw, 0);
			for (sd_bus *bus_of_ours : {client.get(), peers[0].get(), peers[1].get()}) {
				while (bus_of_ours && sd_bus_process(bus_of_ours, nullptr) > 0)
					continue;
			}
			if (done())
				return;
			if (std::chrono::steady_clock::now() > deadline) {
				troubles.push_back("waited in vain: " + what);
				return;
			}
			pollfd fds[] = {{pw_loop_get_fd(pw), POLLIN, 0},
					wait_for(client),
					wait_for(peers[0]),
					wait_for(peers[1])};
			poll(fds, std::size(fds), 10);
		}
	}

	static pollfd wait_for(const hs_bus_ptr &of_ours)
	{
		return {of_ours ? sd_bus_get_fd(of_ours.get()) : -1, POLLIN, 0};
	}

	/** What the first answer sets going has arrived with the second. */
	void settle()
	{
		for (int i = 0; i < 2; ++i) {
			is_settled = false;
			pending = pw_core_sync(core, PW_ID_CORE, 0);
			step_until([this] { return is_settled; }, "PipeWire");
		}
	}

	static void on_done(void *data, uint32_t id, int seq)
	{
		auto *self = static_cast<life *>(data);
		self->is_settled |= id == PW_ID_CORE && seq == self->pending;
	}

	static constexpr pw_core_events core_events = [] {
		pw_core_events events{};
		events.version = PW_VERSION_CORE_EVENTS;
		events.done = on_done;
		return events;
	}();

	const hs_private_bus_daemon &bus_daemon;
	hs_temp_dir directory;
	/** The plug-ins borrow them. */
	const std::string schemas = directory / "schemas";
	const std::string settings = directory / "settings";
	hs_test_host host;
	hs_loop *loop = nullptr;
	pw_context *pipewire = nullptr;
	pw_core *core = nullptr;
	spa_hook core_listener{};
	sd_bus *bus = nullptr;
	hs_context *context = nullptr;
	std::string service;
	hs_bus_ptr client;
	std::array<hs_bus_ptr, 2> peers;
	bool started = false;
	bool is_settled = false;
	int pending = 0;
};

/** What the daemon says when a call of a function fails; each text is the beginning of a warning or an error. */
struct told {
	/** Some calls of the function, or all, fail without a word: the caller is told, or nobody needs to be. */
	bool may_be_silent;
	/** Some or all end the daemon. */
	bool may_quit;
	texts begins;
};

constexpr bool silent = true;
constexpr bool quits = true;

const texts announcements{
	"Failed to emit interfaces for path /com/orvel/HearSense/AudioDevice0Input0",
	"Failed to emit interfaces on main bus for path /com/orvel/HearSense/AudioDevice0Input0/Unprocessed/",
};
/* What sends them says so too. */
const texts structures{
	"Failed to emit interfaces on main bus for path ",
	"Could not emit signal on private bus ",
	"Unable to ",
};
const texts values{
	"Failed to emit interfaces for path ",	 "Failed to emit interfaces on main bus for path ",
	"Could not emit signal on private bus ", "Unable to open append ",
	"Feature flag check failed: ",
};

const std::map<std::string, told> expected{
	{"pw_context_add_spa_lib", {false, false, {"Could not add spa lib 'libspa-hs-", "Could not load spa handle"}}},
	{"pw_context_load_spa_handle", {false, false, {"Could not load spa handle for 'hear-sense."}}},
	{"pw_loop_add_idle", {silent, false, {}}},
	{"pw_loop_add_io", {silent, false, {}}},
	{"pw_loop_add_signal", {silent, false, {}}},
	{"pw_loop_add_timer", {silent, false, {}}},
	{"pw_loop_enable_idle", {false, false, {"Could not disable idle source for bus "}}},
	{"pw_loop_update_io", {false, false, {"Could not update io source for bus "}}},
	{"pw_loop_update_timer", {false, false, {"Could not update timer source for bus "}}},
	{"pw_main_loop_new", {false, false, {"Could not create main loop: "}}},
	{"pw_registry_bind", {false, false, {"Unable to bind virtual-nodes metadata"}}},
	{"pw_stream_connect",
	 {false, false, {"Couldn't connect to stream for plugin '", "Could not create stream for "}}},
	{"pw_stream_disconnect", {silent, false, {}}},
	{"pw_stream_new", {false, false, {"Could not create pw_stream: ", "Could not create stream for "}}},
	{"pw_stream_set_active", {silent, false, {}}},
	{"sd_bus_add_filter", {silent, false, {"Could not guard bus "}}},
	{"sd_bus_add_object_manager",
	 {false, false, {"Could not add object manager: ", "Failed to emit interfaces for path "}}},
	{"sd_bus_add_object_vtable",
	 {silent, false, {"Could not add method GetPrivateBus to /", "Could not set up D-Bus ", "Failed to setup "}}},
	{"sd_bus_call", {false, false, {"Feature flag check failed: "}}},
	{"sd_bus_creds_get_euid", {silent, false, {"Refused a private bus: its user is unknown"}}},
	{"sd_bus_emit_object_added", {false, false, announcements}},
	{"sd_bus_emit_object_removed", {false, false, {"Could not emit object removed on "}}},
	{"sd_bus_emit_properties_changed", {silent, false, {}}},
	{"sd_bus_get_events", {false, quits, {"Could not get events for bus "}}},
	{"sd_bus_get_fd", {silent, false, {}}},
	{"sd_bus_get_n_queued_write", {silent, false, {}}},
	{"sd_bus_get_timeout", {false, quits, {"Could not get timeout on bus "}}},
	{"sd_bus_is_open", {silent, false, {}}},
	{"sd_bus_is_ready", {silent, false, {}}},
	{"sd_bus_match_signal", {false, false, {"Could not setup match signal: "}}},
	{"sd_bus_message_append", {silent, false, values}},
	{"sd_bus_message_append_array",
	 {silent, false, {"Could not emit signal on private bus ", "Failed to emit interfaces on "}}},
	{"sd_bus_message_append_basic",
	 {silent, false, {"Failed to emit interfaces on main bus for path ", "Could not emit signal on private bus "}}},
	{"sd_bus_message_close_container", {silent, false, structures}},
	{"sd_bus_message_copy", {silent, false, {"Could not emit signal on private bus "}}},
	{"sd_bus_message_is_method_call", {silent, false, {}}},
	{"sd_bus_message_new_method_call", {false, false, {"Feature flag check failed: "}}},
	{"sd_bus_message_new_signal", {silent, false, {"Could not emit signal on private bus "}}},
	{"sd_bus_message_open_container", {silent, false, structures}},
	{"sd_bus_message_read", {silent, false, {}}},
	{"sd_bus_message_read_basic", {false, false, {"Unable to read dbus message: "}}},
	{"sd_bus_message_rewind", {silent, false, {}}},
	{"sd_bus_negotiate_fds", {false, false, {"sd_bus_negotiate_fds failed: "}}},
	{"sd_bus_new", {false, false, {"sd_bus_new failed: "}}},
	{"sd_bus_process", {silent, quits, {"Failed to process bus event: "}}},
	{"sd_bus_query_sender_creds", {silent, false, {"Refused a private bus: its user is unknown"}}},
	{"sd_bus_reply_method_return", {silent, false, {}}},
	{"sd_bus_send", {silent, false, {"Could not emit signal on private bus "}}},
	{"sd_bus_set_anonymous", {false, false, {"sd_bus_set_anonymous failed: "}}},
	{"sd_bus_set_fd", {false, false, {"sd_bus_set_fd failed: "}}},
	{"sd_bus_set_server", {false, false, {"sd_bus_set_server failed: "}}},
	{"sd_bus_start", {false, false, {"sd_bus_start failed: ", "Failed to emit interfaces for path "}}},
	{"sd_id128_get_machine", {silent, false, {}}},
	{"sd_id128_randomize", {false, false, {"sd_id128_randomize failed: "}}},
};

/** Which of so many calls from one place are to fail. */
std::vector<size_t> choose(size_t n_calls)
{
	const char *asked = std::getenv("HS_FAULT_CALLS");
	const size_t wanted = std::min(n_calls, asked ? std::strtoul(asked, nullptr, 10) : 3);
	std::set<size_t> chosen;
	for (size_t i = 0; i < wanted; ++i)
		chosen.insert(wanted == 1 ? 1 : 1 + i * (n_calls - 1) / (wanted - 1));
	return {chosen.begin(), chosen.end()};
}

struct outcome {
	bool has_failed;
	bool has_quit;
	texts troubles;
	std::multiset<std::string> complaints;
};

/** A life in which that call fails; the first is just lived. */
outcome live(const hs_private_bus_daemon &daemon, const hs_call &call = {}, size_t n = 0)
{
	hs_calls_begin();
	hs_calls_fail(call, n);
	hs_log_capture log;
	hs_log_topic->level = SPA_LOG_LEVEL_WARN;
	const size_t descriptors = hs_count_descriptors();
	const life lived{daemon};
	outcome result{hs_calls_have_failed(), lived.has_quit, lived.troubles, {}};
	if (hs_count_descriptors() != descriptors)
		result.troubles.emplace_back("descriptors are left open");
#ifdef HS_LOOKS_FOR_LEAKS
	if (__lsan_do_recoverable_leak_check() != 0)
		result.troubles.emplace_back("memory is leaked");
#endif
	for (const hs_log_capture::line &line : log.lines())
		result.complaints.insert(line.text);
	return result;
}

/** The beginning that the text has; "" for none. */
std::string find_begin(const std::string &text, const texts &begins)
{
	const auto found =
		std::find_if(begins.begin(), begins.end(), [&](const std::string &b) { return text.starts_with(b); });
	return found == begins.end() ? "" : *found;
}

} // namespace

TEST(Faults, EveryCallOfALifeMayFailAndIsToldOf)
{
	/* It is not the disk that fails here. */
	if (access("/dev/shm", W_OK) == 0)
		setenv("TMPDIR", "/dev/shm", 1);
	hs_test_pipewire::get();
	setenv("HS_USE_SESSION_BUS", "true", 1);
	const hs_private_bus_daemon daemon;
	/* What is made once and kept is made in the first life. */
	live(daemon);
	const outcome usual = live(daemon);
	ASSERT_TRUE(usual.troubles.empty()) << testing::PrintToString(usual.troubles);
	ASSERT_FALSE(usual.has_quit);
	const std::map<hs_call, size_t> seen = hs_calls_seen();

	std::map<std::string, std::set<std::string>> said;
	size_t n_lives = 0;
	for (const auto &[call, n_calls] : seen) {
		const auto found = expected.find(call.function);
		ASSERT_NE(found, expected.end()) << call.function;
		const told &expectation = found->second;
		std::set<std::string> &heard = said[call.function];
		for (const size_t n : choose(n_calls)) {
			SCOPED_TRACE(call.function + ", call " + std::to_string(n) + " of " + std::to_string(n_calls));
			outcome broken = live(daemon, call, n);
			++n_lives;
			/* How often the loop polls differs from life to life. */
			EXPECT_TRUE(broken.has_failed || n > 1);
			EXPECT_EQ(broken.troubles, texts{});
			EXPECT_TRUE(expectation.may_quit || !broken.has_quit);
			for (const std::string &text : usual.complaints) {
				if (const auto same = broken.complaints.find(text); same != broken.complaints.end())
					broken.complaints.erase(same);
			}
			EXPECT_TRUE(expectation.may_be_silent || !broken.has_failed || !broken.complaints.empty());
			for (const std::string &text : broken.complaints) {
				const std::string begin = find_begin(text, expectation.begins);
				EXPECT_FALSE(begin.empty()) << text;
				heard.insert(begin);
			}
		}
	}
	std::printf("%zu places, %zu lives\n", seen.size(), n_lives);
	for (const auto &[function, expectation] : expected) {
		EXPECT_TRUE(said.count(function)) << function << " was never called";
		EXPECT_EQ(said[function].empty(), expectation.begins.empty()) << function;
	}
}
