#include "pcm.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <pipewire/stream.h>
#include <spa/param/audio/format-utils.h>

#include <gtest/gtest.h>

#include "daemon-bed.hpp"
#include "failing.hpp"
#include "pcm-format.hpp"
#include "pod.hpp"
#include "source.hpp"
#include "stream-retire.hpp"

namespace
{

/* Without a graph that runs, a stream has no buffers: the tests lend it theirs. */
pw_buffer *lent_buffer;
std::vector<pw_buffer *> queued_buffers;

/** What a stream was connected with. */
struct connection {
	spa_direction direction;
	uint32_t target;
	pw_stream_flags flags;
	std::vector<spa_audio_info_raw> offers;
};

connection last_connection;
/** What streams were told of being active. */
std::vector<bool> activations;
/** Called while a stream is told. */
std::function<void()> at_activation;

} // namespace

extern "C" {
pw_buffer *__real_pw_stream_dequeue_buffer(pw_stream *stream);
int __real_pw_stream_queue_buffer(pw_stream *stream, pw_buffer *buffer);
pw_stream *__real_pw_stream_new(pw_core *core, const char *name, pw_properties *props);

pw_buffer *__wrap_pw_stream_dequeue_buffer(pw_stream *stream)
{
	return lent_buffer ? std::exchange(lent_buffer, nullptr) : __real_pw_stream_dequeue_buffer(stream);
}

int __wrap_pw_stream_queue_buffer(pw_stream *, pw_buffer *buffer)
{
	queued_buffers.push_back(buffer);
	return 0;
}

int __real_pw_stream_connect(pw_stream *stream, spa_direction direction, uint32_t target, pw_stream_flags flags,
			     const spa_pod **params, uint32_t n_params);
int __wrap_pw_stream_connect(pw_stream *stream, spa_direction direction, uint32_t target, pw_stream_flags flags,
			     const spa_pod **params, uint32_t n_params)
{
	last_connection = {direction, target, flags, {}};
	for (uint32_t i = 0; i < n_params; ++i) {
		spa_audio_info_raw &offer = last_connection.offers.emplace_back();
		hs_pcm_parse_format(params[i], &offer);
	}
	return __real_pw_stream_connect(stream, direction, target, flags, params, n_params);
}

int __real_pw_stream_set_active(pw_stream *stream, bool active);
int __wrap_pw_stream_set_active(pw_stream *stream, bool active)
{
	activations.push_back(active);
	if (at_activation)
		at_activation();
	return __real_pw_stream_set_active(stream, active);
}

pw_stream *__wrap_pw_stream_new(pw_core *core, const char *name, pw_properties *props)
{
	if (!hs_must_fail("pw_stream_new"))
		return __real_pw_stream_new(core, name, props);
	const hs_properties_ptr owned(props);
	return nullptr;
}
}

namespace
{

using calls = std::vector<std::string>;

std::string address(const void *p)
{
	char text[32];
	std::snprintf(text, sizeof(text), "%p", p);
	return text;
}

/** A plug-in instance whose stream could not be created. */
struct PcmInstance : testing::Test {
	PcmInstance()
	    : config(pw_properties_new("preview", "false", nullptr))
	{
		std::strcpy(record.name, "motion");
		record.config = config.get();
		source.name = "AudioDevice0Input0.Unprocessed";
		source.plugin = &record;
		source.interface = &plugin.interface;
		source.pcm = &pcm;
		pcm.source = &source;
	}

	/** The states that the source tells of. */
	std::string state() const
	{
		return std::string{source.is_initialized ? "initialised" : ""} +
		       (source.is_active ? " active" : "");
	}

	std::string stop_line() const
	{
		return address(&pcm) + ": stop pcm";
	}

	hs_properties_ptr config;
	hs_plugin record{};
	hs_source source{};
	hs_pcm pcm{};
	hs_handmade_plugin plugin;
};

using PcmInstanceDeathTest = PcmInstance;

/** A source with a stream in a graph. */
struct PcmStream : testing::Test {
	PcmStream()
	{
		activations.clear();
		node.name = node_name;
		node.media_class = "Audio/Source";
		record = bed.add_plugin("motion", "plugin.info = { audio.channels = 2, audio.rate = 48000 }");
	}

	~PcmStream() override
	{
		lent_buffer = nullptr;
		queued_buffers.clear();
		at_activation = nullptr;
	}

	/** Makes the source; its plug-in's own record of calls begins behind that. */
	void make_source(const std::string &name = node_name)
	{
		const std::string path = bed.settings + "/x.conf";
		source = hs_source_new(record, name.c_str(), nullptr, path.c_str(), &node);
		ASSERT_NE(source, nullptr);
		plugin = bed.host.plugins.back().get();
		plugin->calls.clear();
	}

	/** What a bus knows of an event of the source. */
	std::string status(sd_bus *bus, const char *event) const
	{
		bool enabled = false;
		if (!hs_loop_bus_get_event_status(bed.loop, bus, source, event, &enabled))
			return "no such bus";
		return enabled ? "enabled" : "disabled";
	}

	std::string property(const char *key) const
	{
		const char *value = pw_properties_get(pw_stream_get_properties(source->pcm->stream), key);
		return value ? value : "(none)";
	}

	/** In the graph; a stream is one of them. */
	size_t count_nodes()
	{
		bed.settle();
		size_t n_nodes = 0;
		pw_context_for_each_global(bed.pipewire, count_node, &n_nodes);
		return n_nodes;
	}

	static int count_node(void *n_nodes, pw_global *global)
	{
		*static_cast<size_t *>(n_nodes) += pw_global_is_type(global, PW_TYPE_INTERFACE_Node);
		return 0;
	}

	/* The three calls that the stream makes. */

	void change_state(pw_stream_state old, pw_stream_state state, const char *error = nullptr) const
	{
		spa_callbacks_call(&source->pcm->listener.cb, pw_stream_events, state_changed, 0, old, state,
		                   error);
	}

	void change_param(uint32_t id, const spa_pod *param) const
	{
		spa_callbacks_call(&source->pcm->listener.cb, pw_stream_events, param_changed, 0, id, param);
	}

	void process() const
	{
		spa_callbacks_call(&source->pcm->listener.cb, pw_stream_events, process, 0);
	}

	void change_format(uint32_t rate, uint32_t channels,
	                   spa_audio_format format = SPA_AUDIO_FORMAT_F32P) const
	{
		spa_audio_info_raw info{};
		info.format = format;
		info.rate = rate;
		info.channels = channels;
		hs_pod_buffer format_buffer;
		change_param(SPA_PARAM_Format, hs_pcm_build_format(info, &format_buffer));
	}

	void change_media_type(uint32_t type, uint32_t subtype) const
	{
		alignas(8) uint8_t bytes[256];
		spa_pod_builder builder = SPA_POD_BUILDER_INIT(bytes, sizeof(bytes));
		spa_pod_frame frame;
		spa_pod_builder_push_object(&builder, &frame, SPA_TYPE_OBJECT_Format, SPA_PARAM_Format);
		spa_pod_builder_add(&builder, SPA_FORMAT_mediaType, SPA_POD_Id(type), SPA_FORMAT_mediaSubtype,
		                    SPA_POD_Id(subtype), 0);
		change_param(SPA_PARAM_Format, static_cast<spa_pod *>(spa_pod_builder_pop(&builder, &frame)));
	}

	/** Lends the stream a buffer with one block. */
	void lend_buffer()
	{
		block.data = samples;
		data.n_datas = 1;
		data.datas = &block;
		buffer.buffer = &data;
		lent_buffer = &buffer;
	}

	static constexpr char node_name[] = "AudioDevice0Input0.Unprocessed";
	hs_pw_source node{};
	hs_daemon_bed bed;
	hs_plugin *record;
	hs_source *source = nullptr;
	hs_handmade_plugin *plugin = nullptr;
	float samples[4] = {};
	spa_data block{};
	spa_buffer data{};
	pw_buffer buffer{};
};

using PcmStreamDeathTest = PcmStream;

} // namespace

TEST_F(PcmInstance, InitGivesThePluginTheStreamAndItsConfig)
{
	pcm.info.info.rate = 16000;
	const hs_log_capture capture;
	EXPECT_TRUE(hs_pcm_plugin_init(&pcm));
	EXPECT_EQ(plugin.calls, calls{"init"});
	EXPECT_EQ(plugin.stream.info.rate, 16000u);
	EXPECT_EQ(plugin.config, (std::vector<std::pair<std::string, std::string>>{{"preview", "false"}}));
	EXPECT_EQ(state(), "initialised");
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, "Initialize motion on AudioDevice0Input0.Unprocessed"),
	          1u)
	        << capture.text();
}

TEST_F(PcmInstance, PluginMayKeepTheDescriptionOfItsStream)
{
	static const hs_stream_info *kept;
	plugin.methods.init = [](void *, const hs_stream_info *info, const spa_dict *) {
		kept = info;
		return 0;
	};
	EXPECT_TRUE(hs_pcm_plugin_init(&pcm));
	EXPECT_EQ(kept, &pcm.info);
}

TEST_F(PcmInstance, InitThatReturnsMoreThanZeroIsASuccess)
{
	plugin.init_result = 3;
	EXPECT_TRUE(hs_pcm_plugin_init(&pcm));
	EXPECT_EQ(state(), "initialised");
}

TEST_F(PcmInstance, InitOfAnInitialisedInstanceCallsNothing)
{
	source.is_initialized = true;
	const hs_log_capture capture;
	EXPECT_TRUE(hs_pcm_plugin_init(&pcm));
	EXPECT_TRUE(plugin.calls.empty());
	EXPECT_TRUE(capture.lines().empty()) << capture.text();
}

TEST_F(PcmInstance, FailedInitStopsTheStream)
{
	for (const int result : {-5, -95}) {
		plugin.init_result = result;
		const hs_log_capture capture;
		EXPECT_FALSE(hs_pcm_plugin_init(&pcm));
		EXPECT_EQ(state(), "");
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_INFO, "Plugin motion on AudioDevice0Input0.Unprocessed "
		                                            "could not be initialized, code: " +
		                                                    std::to_string(result)),
		          1u)
		        << capture.text();
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, stop_line()), 1u) << capture.text();
		EXPECT_EQ(capture.lines().back().text, stop_line()) << capture.text();
	}
}

TEST_F(PcmInstance, PluginWithoutInitCanNotBeInitialised)
{
	plugin.methods.init = nullptr;
	const hs_log_capture capture;
	EXPECT_FALSE(hs_pcm_plugin_init(&pcm));
	EXPECT_EQ(state(), "");
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_INFO, "could not be initialized, code: -95"), 1u)
	        << capture.text();
}

TEST_F(PcmInstanceDeathTest, InitWhileActiveAborts)
{
	source.is_initialized = true;
	source.is_active = true;
	EXPECT_DEATH(hs_pcm_plugin_init(&pcm),
	             "'!pcm->source->is_active' failed at .*pcm.cpp:[0-9]+ hs_pcm_plugin_init\\(\\)");
}

TEST_F(PcmInstance, DeinitClearsItsFlagFirst)
{
	source.is_initialized = true;
	bool was_initialized = true;
	plugin.at_call = [&](const std::string &) { was_initialized = source.is_initialized; };
	const hs_log_capture capture;
	hs_pcm_plugin_deinit(&pcm);
	EXPECT_EQ(plugin.calls, calls{"deinit"});
	EXPECT_FALSE(was_initialized);
	EXPECT_EQ(state(), "");
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, "Deinitialize motion on AudioDevice0Input0.Unprocessed"),
	          1u)
	        << capture.text();
}

TEST_F(PcmInstance, DeinitOfAnActiveInstanceLeavesItActive)
{
	source.is_initialized = true;
	source.is_active = true;
	hs_pcm_plugin_deinit(&pcm);
	EXPECT_EQ(plugin.calls, calls{"deinit"});
	EXPECT_EQ(state(), " active");
}

TEST_F(PcmInstance, DeinitOfAnUninitialisedInstanceDoesNothing)
{
	const hs_log_capture capture;
	hs_pcm_plugin_deinit(&pcm);
	EXPECT_TRUE(plugin.calls.empty());
	EXPECT_TRUE(capture.lines().empty()) << capture.text();
}

TEST_F(PcmInstance, DeinitWithoutTheMethodStillClearsTheFlag)
{
	source.is_initialized = true;
	plugin.methods.deinit = nullptr;
	hs_pcm_plugin_deinit(&pcm);
	EXPECT_EQ(state(), "");
}

TEST_F(PcmInstance, ActivateMakesAnInitialisedInstanceActive)
{
	source.is_initialized = true;
	const hs_log_capture capture;
	EXPECT_TRUE(hs_pcm_plugin_activate(&pcm));
	EXPECT_EQ(plugin.calls, calls{"activate"});
	EXPECT_EQ(state(), "initialised active");
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, "Activate motion on AudioDevice0Input0.Unprocessed"), 1u)
	        << capture.text();
}

TEST_F(PcmInstance, ActivateInAnotherStateCallsNothing)
{
	const hs_log_capture capture;
	EXPECT_FALSE(hs_pcm_plugin_activate(&pcm));
	source.is_initialized = true;
	source.is_active = true;
	EXPECT_TRUE(hs_pcm_plugin_activate(&pcm));
	EXPECT_TRUE(plugin.calls.empty());
	EXPECT_TRUE(capture.lines().empty()) << capture.text();
}

TEST_F(PcmInstance, ActivateThatIsNotSupportedCountsAsSuccess)
{
	source.is_initialized = true;
	plugin.activate_result = -95;
	EXPECT_TRUE(hs_pcm_plugin_activate(&pcm));
	EXPECT_EQ(state(), "initialised active");
}

TEST_F(PcmInstance, PluginWithoutActivateBecomesActive)
{
	source.is_initialized = true;
	plugin.methods.activate = nullptr;
	EXPECT_TRUE(hs_pcm_plugin_activate(&pcm));
	EXPECT_EQ(state(), "initialised active");
}

TEST_F(PcmInstance, FailedActivateStopsTheStream)
{
	source.is_initialized = true;
	plugin.activate_result = -22;
	const hs_log_capture capture;
	EXPECT_FALSE(hs_pcm_plugin_activate(&pcm));
	EXPECT_EQ(state(), "initialised");
	EXPECT_EQ(
	        capture.count(
	                SPA_LOG_LEVEL_INFO,
	                "Plugin motion on AudioDevice0Input0.Unprocessed could not be activated, code: -22"),
	        1u)
	        << capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, stop_line()), 1u) << capture.text();
	EXPECT_EQ(capture.lines().back().text, stop_line()) << capture.text();
}

TEST_F(PcmInstance, DeactivateClearsItsFlagFirst)
{
	source.is_initialized = true;
	source.is_active = true;
	bool was_active = true;
	plugin.at_call = [&](const std::string &) { was_active = source.is_active; };
	const hs_log_capture capture;
	hs_pcm_plugin_deactivate(&pcm);
	EXPECT_EQ(plugin.calls, calls{"deactivate"});
	EXPECT_FALSE(was_active);
	EXPECT_EQ(state(), "initialised");
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, "Deactivate motion on AudioDevice0Input0.Unprocessed"),
	          1u)
	        << capture.text();
}

TEST_F(PcmInstance, DeactivateOfAnInactiveInstanceDoesNothing)
{
	source.is_initialized = true;
	const hs_log_capture capture;
	hs_pcm_plugin_deactivate(&pcm);
	EXPECT_TRUE(plugin.calls.empty());
	EXPECT_TRUE(capture.lines().empty()) << capture.text();
}

TEST_F(PcmInstance, WithoutAStreamStartAndStopDoNothing)
{
	source.enabled = true;
	source.consumers = 1;
	const hs_log_capture capture;
	EXPECT_FALSE(hs_pcm_start_stream(&pcm));
	EXPECT_FALSE(pcm.stream_active);
	EXPECT_TRUE(capture.lines().empty()) << capture.text();
	hs_pcm_stop_stream(&pcm);
	ASSERT_EQ(capture.lines().size(), 1u) << capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, stop_line()), 1u) << capture.text();
}

TEST_F(PcmInstance, NullIsNotStartedAndNotDestroyed)
{
	const hs_log_capture capture;
	EXPECT_FALSE(hs_pcm_start_stream(nullptr));
	hs_pcm_destroy(nullptr);
	EXPECT_TRUE(capture.lines().empty()) << capture.text();
}

TEST_F(PcmStream, IsMadeInactiveForADisabledPlugin)
{
	const hs_log_capture capture;
	make_source();
	bed.settle();
	hs_pcm *pcm = source->pcm;
	ASSERT_NE(pcm->stream, nullptr);
	EXPECT_FALSE(source->enabled);
	EXPECT_EQ(pcm->source, source);
	EXPECT_EQ(pcm->node, &node);
	EXPECT_FALSE(pcm->stream_active);
	EXPECT_FALSE(pcm->format_ready);
	EXPECT_STREQ(pw_stream_get_name(pcm->stream), "audio-src");
	EXPECT_EQ(pw_stream_get_state(pcm->stream, nullptr), PW_STREAM_STATE_PAUSED);
	EXPECT_EQ(capture.complaints(), 0u) << capture.text();
	EXPECT_TRUE(plugin->calls.empty());
}

TEST_F(PcmStream, LetsTheSessionManagerFindItsTarget)
{
	make_source();
	EXPECT_EQ(property(PW_KEY_NODE_AUTOCONNECT), "true");
	EXPECT_EQ(property(PW_KEY_TARGET_OBJECT), node_name);
	EXPECT_EQ(property(PW_KEY_MEDIA_CLASS), "Stream/Input/Audio");
}

TEST_F(PcmStream, ConnectsInactiveWithOneOfferAndNoTargetId)
{
	make_source();
	EXPECT_EQ(last_connection.direction, SPA_DIRECTION_INPUT);
	EXPECT_EQ(last_connection.target, PW_ID_ANY);
	EXPECT_EQ(static_cast<int>(last_connection.flags),
		  PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_INACTIVE | PW_STREAM_FLAG_MAP_BUFFERS);
	ASSERT_EQ(last_connection.offers.size(), 1u);
	EXPECT_EQ(last_connection.offers[0].format, SPA_AUDIO_FORMAT_F32P);
	EXPECT_EQ(last_connection.offers[0].rate, 48000u);
	EXPECT_EQ(last_connection.offers[0].channels, 2u);
	EXPECT_TRUE(activations.empty());
}

TEST_F(PcmStream, IsListenedToWhileItConnects)
{
	const hs_log_capture capture;
	make_source();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG,
				"State changed: 0 -> 1 for motion on AudioDevice0Input0.Unprocessed)"),
		  1u)
		<< capture.text();
}

TEST_F(PcmStream, OfASourceThatHasOneAlreadyLeavesThatInPlace)
{
	make_source();
	hs_pcm *first = source->pcm;
	hs_pcm *second = hs_pcm_new(source, &node);
	EXPECT_EQ(source->pcm, first);
	EXPECT_EQ(second->source, source);
	hs_pcm_destroy(second);
}

TEST_F(PcmStream, HearsASinkWithoutKeepingItRunning)
{
	node.media_class = "Audio/Sink";
	make_source();
	EXPECT_EQ(property(PW_KEY_STREAM_CAPTURE_SINK), "true");
	EXPECT_EQ(property(PW_KEY_NODE_PASSIVE), "follow");
}

TEST_F(PcmStream, HearsASourceInTheOrdinaryWay)
{
	make_source();
	EXPECT_EQ(property(PW_KEY_STREAM_CAPTURE_SINK), "(none)");
	EXPECT_EQ(property(PW_KEY_NODE_PASSIVE), "(none)");
}

TEST_F(PcmStream, IsNotRemixedWhereEveryChannelHasItsPosition)
{
	pw_properties_set(record->props, "plugin.info", "{ audio.channels = 2, audio.position = [ FL FR ] }");
	make_source();
	EXPECT_EQ(property("stream.dont-remix"), "true");
	EXPECT_EQ(source->pcm->info.info.position[1], SPA_AUDIO_CHANNEL_FR);
}

TEST_F(PcmStream, ThatCanNotBeCreatedLeavesTheRecordWithoutOne)
{
	hs_fail_call("pw_stream_new", 1, ENOMEM);
	const hs_log_capture capture;
	make_source();
	ASSERT_NE(source->pcm, nullptr);
	EXPECT_EQ(source->pcm->stream, nullptr);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, "Could not create pw_stream: Cannot allocate memory"),
	          1u)
	        << capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN,
	                        "Could not create stream for AudioDevice0Input0.Unprocessed"),
	          1u)
	        << capture.text();
}

TEST_F(PcmStream, ThatCanNotConnectIsKept)
{
	pw_impl_factory_destroy(pw_context_find_factory(bed.pipewire, "adapter"));
	const hs_log_capture capture;
	make_source();
	EXPECT_NE(source->pcm->stream, nullptr);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, "Couldn't connect to stream for plugin 'motion' to node "
	                                             "'AudioDevice0Input0.Unprocessed': "),
	          1u)
	        << capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN,
	                        "Could not create stream for AudioDevice0Input0.Unprocessed"),
	          1u)
	        << capture.text();
}

TEST_F(PcmStream, StartsForAnEnabledSourceWithConsumers)
{
	make_source();
	hs_pcm *pcm = source->pcm;
	source->enabled = true;
	source->consumers = 1;
	const hs_log_capture capture;
	EXPECT_TRUE(hs_pcm_start_stream(pcm));
	EXPECT_TRUE(pcm->stream_active);
	EXPECT_EQ(activations, std::vector<bool>{true});
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, address(pcm->stream) + ": activate stream"), 1u)
	        << capture.text();
	EXPECT_FALSE(hs_pcm_start_stream(pcm));
	EXPECT_EQ(activations.size(), 1u);
	EXPECT_EQ(capture.lines().size(), 1u) << capture.text();
}

TEST_F(PcmStream, DoesNotStartForADisabledSource)
{
	make_source();
	source->consumers = 1;
	EXPECT_FALSE(hs_pcm_start_stream(source->pcm));
	EXPECT_FALSE(source->pcm->stream_active);
}

TEST_F(PcmStream, DoesNotStartWithoutConsumers)
{
	make_source();
	source->enabled = true;
	EXPECT_FALSE(hs_pcm_start_stream(source->pcm));
	EXPECT_FALSE(source->pcm->stream_active);
}

TEST_F(PcmStream, StopsWheneverItIsTold)
{
	make_source();
	hs_pcm *pcm = source->pcm;
	for (const bool active : {true, false}) {
		pcm->stream_active = active;
		const hs_log_capture capture;
		activations.clear();
		hs_pcm_stop_stream(pcm);
		EXPECT_FALSE(pcm->stream_active);
		EXPECT_EQ(activations, std::vector<bool>{false});
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, address(pcm) + ": stop pcm"), 1u)
		        << capture.text();
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, address(pcm->stream) + ": deactivate stream"),
		          1u)
		        << capture.text();
	}
}

TEST_F(PcmStream, StartsAndStopsBeforeTheStatusOfItsEventChanges)
{
	make_source();
	source->enabled = true;
	sd_bus *bus = bed.add_private_bus().bus();
	calls statuses;
	at_activation = [&] { statuses.push_back(status(bus, "Level")); };
	hs_loop_bus_set_event_status(bed.loop, bus, "Level", source, true);
	EXPECT_EQ(activations, std::vector<bool>{true});
	hs_loop_bus_set_event_status(bed.loop, bus, "Level", source, false);
	EXPECT_EQ(activations, (std::vector<bool>{true, false}));
	EXPECT_EQ(statuses, (calls{"disabled", "enabled"}));
}

TEST_F(PcmStream, ABusThatGoesIsGoneBeforeItStops)
{
	make_source();
	source->enabled = true;
	sd_bus *bus = bed.add_private_bus().bus();
	hs_loop_bus_set_event_status(bed.loop, bus, "Level", source, true);
	activations.clear();
	calls statuses;
	at_activation = [&] { statuses.push_back(status(bus, "Level")); };
	hs_loop_do_quit(bed.loop, 0);
	EXPECT_EQ(activations, std::vector<bool>{false});
	EXPECT_EQ(statuses, calls{"no such bus"});
}

TEST_F(PcmStream, DestroyingSaysSoAndDeinitialisesThePausedInstance)
{
	make_source();
	bed.settle();
	change_format(48000, 2);
	ASSERT_TRUE(source->is_initialized);
	plugin->calls.clear();
	const std::string pcm = address(source->pcm);
	const std::string stream = address(source->pcm->stream);
	const hs_log_capture capture;
	hs_pcm_destroy(source->pcm);
	source->pcm = nullptr;
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, pcm + ": destroy pcm"), 1u) << capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, stream + ": destroy stream"), 1u) << capture.text();
	EXPECT_EQ(capture.lines()[0].text, pcm + ": destroy pcm");
	EXPECT_EQ(capture.lines()[1].text, stream + ": destroy stream");
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, pcm + ": source disconnected"), 1u) << capture.text();
	EXPECT_EQ(plugin->calls, calls{"deinit"});
}

TEST_F(PcmStream, OneThatIsSetUpIsDestroyedAtOnce)
{
	const size_t n_nodes = count_nodes();
	make_source();
	ASSERT_EQ(count_nodes(), n_nodes + 1);
	ASSERT_NE(pw_stream_get_state(source->pcm->stream, nullptr), PW_STREAM_STATE_CONNECTING);
	bool is_destroyed = false;
	spa_hook listener{};
	pw_stream_events events{};
	events.version = PW_VERSION_STREAM_EVENTS;
	events.destroy = [](void *flag) { *static_cast<bool *>(flag) = true; };
	pw_stream_add_listener(source->pcm->stream, &listener, &events, &is_destroyed);
	hs_pcm_destroy(source->pcm);
	source->pcm = nullptr;
	EXPECT_TRUE(is_destroyed);
	if (!is_destroyed)
		spa_hook_remove(&listener);
	EXPECT_EQ(count_nodes(), n_nodes);
}

TEST_F(PcmStream, OneThatIsStillBeingSetUpIsDestroyedOnceItIs)
{
	const size_t n_nodes = count_nodes();
	make_source();
	ASSERT_EQ(pw_stream_get_state(source->pcm->stream, nullptr), PW_STREAM_STATE_CONNECTING);
	const std::string stream = address(source->pcm->stream);
	const hs_log_capture capture;
	hs_pcm_destroy(source->pcm);
	source->pcm = nullptr;
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, stream + ": destroy stream"), 1u) << capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, stream + ": destroy retired stream"), 0u) << capture.text();
	/* The set-up, and what follows it: not every answer of the server is the one that is waited for. */
	bed.settle();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, stream + ": destroy retired stream"), 0u) << capture.text();
	bed.settle();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, stream + ": destroy retired stream"), 1u) << capture.text();
	EXPECT_EQ(capture.complaints(), 0u) << capture.text();
	EXPECT_TRUE(spa_list_is_empty(&hs_context_get()->retired_streams));
	EXPECT_EQ(count_nodes(), n_nodes);
}

TEST_F(PcmStream, OneThatNeverGetsSetUpIsDestroyedWithTheContext)
{
	make_source();
	const std::string stream = address(source->pcm->stream);
	hs_pcm_destroy(source->pcm);
	source->pcm = nullptr;
	const hs_log_capture capture;
	hs_stream_retire_finish();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, stream + ": destroy retired stream"), 1u) << capture.text();
	EXPECT_TRUE(spa_list_is_empty(&hs_context_get()->retired_streams));
}

TEST_F(PcmStream, OtherParametersAreNoFormat)
{
	make_source();
	alignas(8) uint8_t bytes[64];
	spa_pod_builder builder = SPA_POD_BUILDER_INIT(bytes, sizeof(bytes));
	spa_pod_builder_int(&builder, 1);
	const hs_log_capture capture;
	change_param(SPA_PARAM_Format, nullptr);
	change_param(SPA_PARAM_Props, reinterpret_cast<spa_pod *>(bytes));
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, "No format"), 2u) << capture.text();
	EXPECT_EQ(capture.lines().size(), 2u) << capture.text();
	EXPECT_FALSE(source->pcm->format_ready);
}

TEST_F(PcmStream, FormatThatIsNoneIsWarnedOf)
{
	make_source();
	alignas(8) uint8_t bytes[64];
	spa_pod_builder builder = SPA_POD_BUILDER_INIT(bytes, sizeof(bytes));
	spa_pod_builder_int(&builder, 1);
	const hs_log_capture capture;
	change_param(SPA_PARAM_Format, reinterpret_cast<spa_pod *>(bytes));
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "Could not parse format"), 1u) << capture.text();
	EXPECT_FALSE(source->pcm->format_ready);
	EXPECT_TRUE(plugin->calls.empty());
}

TEST_F(PcmStream, WrongMediaTypeLeavesThePluginAlone)
{
	make_source();
	const hs_log_capture capture;
	change_media_type(SPA_MEDIA_TYPE_video, SPA_MEDIA_SUBTYPE_raw);
	change_media_type(SPA_MEDIA_TYPE_audio, SPA_MEDIA_SUBTYPE_dsp);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, "Wrong media type: 2/1"), 1u) << capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, "Wrong media type: 1/2"), 1u) << capture.text();
	EXPECT_FALSE(source->pcm->format_ready);
	EXPECT_TRUE(plugin->calls.empty());
}

TEST_F(PcmStream, FormatInitialisesThePlugin)
{
	make_source();
	pw_properties_set(bed.registry->metadata->connections, "AudioDevice0Input0",
	                  "{ \"connection_type\": \"internal\", \"acoustic_id\": \"a1\" }");
	const hs_log_capture capture;
	change_format(44100, 2, SPA_AUDIO_FORMAT_S16P);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, "Rate: 44100 channels: 2 format: " +
	                                                     std::to_string(SPA_AUDIO_FORMAT_S16P) + "\n"),
	          1u)
	        << capture.text();
	EXPECT_EQ(plugin->calls, calls{"init"});
	EXPECT_EQ(plugin->stream.info.rate, 44100u);
	EXPECT_EQ(plugin->stream.info.channels, 2u);
	EXPECT_EQ(plugin->stream.info.format, SPA_AUDIO_FORMAT_S16P);
	EXPECT_EQ(plugin->stream.info.flags, 0u);
	EXPECT_STREQ(plugin->stream.source_name, node_name);
	EXPECT_STREQ(plugin->stream.connection_type, "internal");
	EXPECT_STREQ(plugin->stream.acoustic_id, "a1");
	EXPECT_TRUE(source->pcm->format_ready);
	EXPECT_FALSE(source->is_active);
}

TEST_F(PcmStream, FormatWithTooManyChannelsKeepsThePreviousOneButInitialises)
{
	make_source();
	change_format(16000, 1);
	plugin->calls.clear();
	const hs_log_capture capture;
	change_format(48000, 65);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "Could not parse raw audio"), 1u) << capture.text();
	EXPECT_EQ(plugin->calls, (calls{"deinit", "init"}));
	EXPECT_EQ(plugin->stream.info.rate, 16000u);
	EXPECT_EQ(plugin->stream.info.channels, 1u);
}

TEST_F(PcmStream, FirstFormatThatCanNotBeReadIsFollowedByTheRestAllTheSame)
{
	make_source();
	pw_properties_set(bed.registry->metadata->connections, "AudioDevice0Input0",
			  "{ \"connection_type\": \"internal\", \"acoustic_id\": \"a1\" }");
	change_format(44100, 65);
	EXPECT_EQ(plugin->calls, calls{"init"});
	/* What the stream was offered with. */
	EXPECT_EQ(plugin->stream.info.rate, 48000u);
	EXPECT_STREQ(plugin->stream.source_name, node_name);
	EXPECT_STREQ(plugin->stream.connection_type, "internal");
	EXPECT_STREQ(plugin->stream.acoustic_id, "a1");
	EXPECT_TRUE(source->pcm->format_ready);
}

TEST_F(PcmStream, FormatIsReadyOnceThePluginWasAsked)
{
	make_source();
	bool was_ready = true;
	plugin->at_call = [&](const std::string &) { was_ready = source->pcm->format_ready; };
	change_format(48000, 2);
	EXPECT_FALSE(was_ready);
	EXPECT_TRUE(source->pcm->format_ready);
}

TEST_F(PcmStream, FormatIsReadyEvenWhereThePluginCanNotBeInitialised)
{
	make_source();
	plugin->init_result = -EIO;
	change_format(48000, 2);
	EXPECT_TRUE(source->pcm->format_ready);
	EXPECT_FALSE(source->is_initialized);
	EXPECT_EQ(plugin->calls, calls{"init"});
}

TEST_F(PcmStream, SecondFormatReinitialisesAnActivePlugin)
{
	make_source();
	change_format(48000, 2);
	change_state(PW_STREAM_STATE_PAUSED, PW_STREAM_STATE_STREAMING);
	ASSERT_TRUE(source->is_active);
	plugin->calls.clear();
	change_format(16000, 1);
	EXPECT_EQ(plugin->calls, (calls{"deactivate", "deinit", "init", "activate"}));
	EXPECT_TRUE(source->is_active);
}

TEST_F(PcmStream, SecondFormatDoesNotActivateAPluginThatFailsToInitialise)
{
	make_source();
	change_format(48000, 2);
	change_state(PW_STREAM_STATE_PAUSED, PW_STREAM_STATE_STREAMING);
	plugin->calls.clear();
	plugin->init_result = -EIO;
	change_format(16000, 1);
	EXPECT_EQ(plugin->calls, (calls{"deactivate", "deinit", "init"}));
	EXPECT_FALSE(source->is_active);
	EXPECT_FALSE(source->is_initialized);
}

TEST_F(PcmStream, SecondFormatDoesNotActivateAnInactivePlugin)
{
	make_source();
	change_format(48000, 2);
	plugin->calls.clear();
	change_format(16000, 1);
	EXPECT_EQ(plugin->calls, (calls{"deinit", "init"}));
	EXPECT_FALSE(source->is_active);
}

TEST_F(PcmStream, DescriptionIsCutAt127Bytes)
{
	const std::string name = "AudioDevice0" + std::string(200, 'n');
	const std::string type(130, 't');
	const std::string id(130, 'i');
	make_source(name);
	const std::string connection = "{ connection_type = " + type + " acoustic_id = " + id + " }";
	pw_properties_set(bed.registry->metadata->connections, "AudioDevice0", connection.c_str());
	hs_pcm_update_description(source->pcm);
	EXPECT_EQ(source->pcm->info.source_name, name.substr(0, 127));
	EXPECT_EQ(source->pcm->info.connection_type, type.substr(0, 127));
	EXPECT_EQ(source->pcm->info.acoustic_id, id.substr(0, 127));
}

TEST_F(PcmStream, DescriptionOfAnUnknownDeviceIsEmpty)
{
	make_source();
	std::strcpy(source->pcm->info.connection_type, "old");
	std::strcpy(source->pcm->info.acoustic_id, "old");
	hs_pcm_update_description(source->pcm);
	EXPECT_STREQ(source->pcm->info.source_name, node_name);
	EXPECT_STREQ(source->pcm->info.connection_type, "");
	EXPECT_STREQ(source->pcm->info.acoustic_id, "");
}

TEST_F(PcmStream, StreamingActivatesThePluginAndLooksAtItsEvents)
{
	make_source();
	change_format(48000, 2);
	plugin->calls.clear();
	plugin->events = {hs_describe_int("Level", 1)};
	const hs_log_capture capture;
	change_state(PW_STREAM_STATE_PAUSED, PW_STREAM_STATE_STREAMING);
	EXPECT_EQ(plugin->calls, (calls{"activate", "get_event"}));
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG,
	                        "State changed: 2 -> 3 for motion on AudioDevice0Input0.Unprocessed)"),
	          1u)
	        << capture.text();
}

TEST_F(PcmStream, StateIsToldBeforeThePluginHearsOfIt)
{
	make_source();
	change_format(48000, 2);
	const hs_log_capture capture;
	calls told;
	plugin->at_call = [&](const std::string &) { told.push_back(capture.lines()[0].text); };
	change_state(PW_STREAM_STATE_PAUSED, PW_STREAM_STATE_STREAMING);
	change_state(PW_STREAM_STATE_STREAMING, PW_STREAM_STATE_PAUSED);
	const std::string first = "State changed: 2 -> 3 for motion on AudioDevice0Input0.Unprocessed)";
	EXPECT_EQ(told, (calls{first, first}));
	EXPECT_EQ(capture.lines()[2].text, "State changed: 3 -> 2 for motion on AudioDevice0Input0.Unprocessed)");
}

TEST_F(PcmStream, StreamingWithoutAnActivePluginLooksAtNoEvent)
{
	make_source();
	plugin->events = {hs_describe_int("Level", 1)};
	change_state(PW_STREAM_STATE_PAUSED, PW_STREAM_STATE_STREAMING);
	EXPECT_TRUE(plugin->calls.empty());

	change_format(48000, 2);
	plugin->activate_result = -EIO;
	change_state(PW_STREAM_STATE_PAUSED, PW_STREAM_STATE_STREAMING);
	EXPECT_EQ(plugin->count("get_event"), 0u);
}

TEST_F(PcmStream, PausingDeactivatesThePluginAndLooksAtItsEvents)
{
	make_source();
	change_format(48000, 2);
	change_state(PW_STREAM_STATE_PAUSED, PW_STREAM_STATE_STREAMING);
	plugin->events = {hs_describe_int("Level", 1)};
	plugin->calls.clear();
	change_state(PW_STREAM_STATE_CONNECTING, PW_STREAM_STATE_PAUSED);
	EXPECT_TRUE(plugin->calls.empty());
	change_state(PW_STREAM_STATE_STREAMING, PW_STREAM_STATE_PAUSED);
	EXPECT_EQ(plugin->calls, (calls{"deactivate", "get_event"}));
	change_state(PW_STREAM_STATE_STREAMING, PW_STREAM_STATE_PAUSED);
	EXPECT_EQ(plugin->calls.size(), 2u);
}

TEST_F(PcmStream, DisconnectingDeinitialisesAfterAPauseOnly)
{
	make_source();
	change_format(48000, 2);
	plugin->calls.clear();
	const hs_log_capture capture;
	change_state(PW_STREAM_STATE_STREAMING, PW_STREAM_STATE_UNCONNECTED);
	EXPECT_TRUE(plugin->calls.empty());
	change_state(PW_STREAM_STATE_PAUSED, PW_STREAM_STATE_UNCONNECTED);
	EXPECT_EQ(plugin->calls, calls{"deinit"});
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, address(source->pcm) + ": source disconnected"), 2u)
	        << capture.text();
}

TEST_F(PcmStream, ErrorOfTheStreamIsTold)
{
	make_source();
	change_format(48000, 2);
	plugin->calls.clear();
	const hs_log_capture capture;
	change_state(PW_STREAM_STATE_PAUSED, PW_STREAM_STATE_ERROR, "no node available");
	change_state(PW_STREAM_STATE_PAUSED, PW_STREAM_STATE_ERROR);
	const std::string start =
	        address(source->pcm) + ": motion AudioDevice0Input0.Unprocessed source error: ";
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, start + "no node available"), 1u) << capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, start + "(null)"), 1u) << capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, "State changed: 2 -> -1 for motion on "), 2u)
	        << capture.text();
	EXPECT_TRUE(plugin->calls.empty());
}

TEST_F(PcmStream, ConnectingIsOnlyTold)
{
	make_source();
	const hs_log_capture capture;
	change_state(PW_STREAM_STATE_UNCONNECTED, PW_STREAM_STATE_CONNECTING);
	EXPECT_EQ(capture.lines().size(), 1u) << capture.text();
	EXPECT_TRUE(plugin->calls.empty());
}

TEST_F(PcmStreamDeathTest, ProcessWithoutAHandleAborts)
{
	make_source();
	spa_handle *handle = std::exchange(source->handle, nullptr);
	EXPECT_DEATH(process(), "'source->handle' failed at .*pcm.cpp:[0-9]+ process\\(\\)");
	source->handle = handle;
}

TEST_F(PcmStream, BufferGoesToTheActivePluginThenToItsEventsThenBack)
{
	make_source();
	change_format(48000, 2);
	change_state(PW_STREAM_STATE_PAUSED, PW_STREAM_STATE_STREAMING);
	plugin->events = {hs_describe_int("Level", 1), hs_describe_int("Peak", 1)};
	plugin->calls.clear();
	size_t queued_before_the_events = 1;
	plugin->at_call = [&](const std::string &) { queued_before_the_events = queued_buffers.size(); };
	const hs_log_capture capture;
	lend_buffer();
	process();
	EXPECT_EQ(plugin->calls, (calls{"process", "get_event", "get_event"}));
	EXPECT_EQ(plugin->heard, &data);
	EXPECT_EQ(queued_before_the_events, 0u);
	EXPECT_EQ(queued_buffers, std::vector<pw_buffer *>{&buffer});
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_TRACE, "process"), 1u) << capture.text();
}

TEST_F(PcmStream, EventsAreCountedAnewAfterEveryBuffer)
{
	make_source();
	change_format(48000, 2);
	change_state(PW_STREAM_STATE_PAUSED, PW_STREAM_STATE_STREAMING);
	plugin->n_event_counts = 0;
	for (int i = 0; i < 3; ++i) {
		lend_buffer();
		process();
	}
	EXPECT_EQ(plugin->n_event_counts, 3u);
	EXPECT_EQ(plugin->count("process"), 3u);
}

TEST_F(PcmStream, PluginWithoutProcessStillHasItsEventsLookedAt)
{
	make_source();
	change_format(48000, 2);
	change_state(PW_STREAM_STATE_PAUSED, PW_STREAM_STATE_STREAMING);
	plugin->events = {hs_describe_int("Level", 1)};
	plugin->methods.process = nullptr;
	plugin->calls.clear();
	lend_buffer();
	process();
	EXPECT_EQ(plugin->calls, calls{"get_event"});
	EXPECT_EQ(queued_buffers.size(), 1u);
}

TEST_F(PcmStream, BufferForAnInactivePluginGoesStraightBack)
{
	make_source();
	change_format(48000, 2);
	plugin->events = {hs_describe_int("Level", 1)};
	plugin->calls.clear();
	lend_buffer();
	process();
	EXPECT_TRUE(plugin->calls.empty());
	EXPECT_EQ(queued_buffers, std::vector<pw_buffer *>{&buffer});
}

TEST_F(PcmStream, BufferThatFailsACheckIsNeitherHeardNorQueued)
{
	make_source();
	change_format(48000, 2);
	change_state(PW_STREAM_STATE_PAUSED, PW_STREAM_STATE_STREAMING);
	plugin->calls.clear();

	const auto expect_error = [this](const std::string &text) {
		const hs_log_capture capture;
		process();
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, text), 1u) << capture.text();
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, "Could not dequeue buffer: "), 1u)
		        << capture.text();
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR), 2u) << capture.text();
	};
	lend_buffer();
	buffer.buffer = nullptr;
	expect_error("No buffer allocated in " + address(&buffer));
	lend_buffer();
	data.n_datas = 0;
	data.datas = nullptr;
	expect_error("No data members present in " + address(&data));
	lend_buffer();
	data.datas = nullptr;
	expect_error("No buffer data present in (nil)");
	lend_buffer();
	spa_data blocks[] = {block, {}};
	data.datas = blocks;
	data.n_datas = 2;
	expect_error("Data undefined in " + address(&blocks[1]));

	EXPECT_TRUE(plugin->calls.empty());
	EXPECT_TRUE(queued_buffers.empty());
}

TEST_F(PcmStream, WithoutABufferProcessIsAnError)
{
	make_source();
	const hs_log_capture capture;
	process();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, "Unable to dequeue audio stream: Unknown error"), 1u)
	        << capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, "Could not dequeue buffer: "), 1u) << capture.text();
	EXPECT_EQ(capture.lines()[0].text, "process") << capture.text();
}

TEST_F(PcmStream, ErrorOfTheStreamIsTheReasonForAMissingBuffer)
{
	make_source();
	pw_stream_set_error(source->pcm->stream, -EIO, "out of %s", "order");
	const hs_log_capture capture;
	process();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR,
	                        "Unable to dequeue audio stream: out of order. Stream state: -1"),
	          1u)
	        << capture.text();
}

TEST_F(PcmStream, WithoutAStreamProcessIsAnError)
{
	make_source();
	pw_stream *stream = std::exchange(source->pcm->stream, nullptr);
	const hs_log_capture capture;
	process();
	EXPECT_EQ(
	        capture.count(SPA_LOG_LEVEL_ERROR, "Unable to dequeue audio buffer: Undefined audio stream"),
	        1u)
	        << capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, "Could not dequeue buffer: "), 1u) << capture.text();
	source->pcm->stream = stream;
}
