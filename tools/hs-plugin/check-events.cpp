/*
 * Checks of the events: how they are described, and who tells of them.
 */
#include "check-bench.hpp"
#include "check-description.hpp"

#include "plugin.hpp"
#include "utf8.hpp"

namespace hs_tool {

namespace {

constexpr int many = 1024;
constexpr uint64_t max_topics = 3;
constexpr uint32_t known_data_types = HS_EVENT_DATA_STATS | HS_EVENT_DATA_EVENT;

/** The number of events; 0 for none. */
int count_events(const host &instance, report *found)
{
	found->begin("asking for the number of events");
	const int n = hs_plugin_count_events(instance.interface());
	if (n >= many)
		found->warn("It tells of " + std::to_string(many) + " events or more; those beyond are left out.");
	if (n != hs_plugin_count_events(instance.interface()))
		found->fail("The number of its events changes.");
	return std::max(n, 0);
}

void check_one(const host &instance, uint32_t index, std::set<std::string> *keys, std::set<std::string> *titles,
	       report *found)
{
	found->begin("asking for the event with index " + std::to_string(index));
	hs_pod_buffer buffer;
	const spa_pod *pod = hs_plugin_fetch_event(instance.interface(), index, &buffer);
	const hs_pod_ptr parsed = hs_pod_parse(pod);
	if (!parsed) {
		check_unreadable(topic::event, index, pod, found);
		return;
	}
	const raw_description raw = read_raw(pod);
	check_description(topic::event, raw, keys, found);
	check_value(topic::event, raw, *parsed, found);
	titles->insert(raw.title);
	if (raw.has_non_finite)
		found->fail("The event " + raw.title + " is not a finite number before anything was heard.");
}

void check_beyond(const host &instance, int n, report *found)
{
	for (const uint32_t index :
	     {static_cast<uint32_t>(n), static_cast<uint32_t>(n) + 1, 0x7fffffffU, 0xffffffffU}) {
		found->begin("asking for the event with index " + std::to_string(index) + ", of " + std::to_string(n));
		hs_pod_buffer buffer;
		if (hs_plugin_fetch_event(instance.interface(), index, &buffer))
			found->warn("It describes an event beyond the last one.");
	}
}

void check_text(const std::string &what, const char *text, report *found)
{
	if (text && !hs_utf8_is_valid(text))
		found->fail(what + " is no UTF-8 that the bus takes.");
}

void check_topics(const hs_event_info &info, report *found)
{
	if (info.n_topics > max_topics)
		found->warn(std::string("The event ") + info.name +
			    " has more than three topics, of which the daemon publishes three.");
	if (info.n_topics > 0 && !info.topics)
		found->fail(std::string("The event ") + info.name + " has topics, but none are given.");
	for (uint64_t i = 0; info.topics && i < info.n_topics && i < max_topics; ++i) {
		if (const hs_event_topic *topic = info.topics[i]) {
			check_text("A topic's name", topic->name, found);
			check_text("A topic's nice name", topic->nice_name, found);
			check_text("A topic's namespace", topic->namespace_, found);
		}
	}
}

/** Compares the plug-in's list of events with those described. */
void check_list(const hs_plugin_interface &interface, const std::set<std::string> &titles, report *found)
{
	found->begin("reading the list of events");
	if (interface.n_events > 0 && !interface.events) {
		found->fail("It has a list of events, but none are given.");
		return;
	}
	std::set<std::string> listed;
	for (uint64_t i = 0; i < interface.n_events; ++i) {
		const hs_event_info *info = interface.events[i];
		if (!info || !info->name) {
			found->fail("Its list of events has an entry without a name.");
			continue;
		}
		listed.insert(info->name);
		if (!titles.contains(info->name))
			found->warn(std::string("Its list has the event ") + info->name + ", which is not described.");
		if (!info->nice_name || !*info->nice_name)
			found->warn(std::string("The event ") + info->name + " has no name for people.");
		check_text(std::string("The nice name of the event ") + info->name, info->nice_name, found);
		if (info->data_types & ~known_data_types)
			found->warn(std::string("The event ") + info->name +
				    " has data types that the daemon does not know.");
		check_topics(*info, found);
	}
	for (const std::string &title : titles) {
		if (!listed.contains(title))
			found->fail("The event " + title +
				    " is not in the interface's list, so clients cannot read all of it.");
	}
}

void check_described(const subject &plugin, report *found)
{
	const bench loaded(plugin);
	const host instance(loaded.plugin, loaded.conf.config.get(), nullptr);
	const int n = count_events(instance, found);
	std::set<std::string> keys;
	std::set<std::string> titles;
	for (int i = 0; i < n; ++i)
		check_one(instance, static_cast<uint32_t>(i), &keys, &titles, found);
	check_beyond(instance, n, found);
	check_list(*instance.interface(), titles, found);
	if (n == 0)
		found->warn("It has no events, so nobody learns what it hears.");
	found->note(std::to_string(n) + (n == 1 ? " event" : " events"));
}

void check_notifications(const subject &plugin, report *found)
{
	const bench loaded(plugin);
	const spa_audio_info_raw format = loaded.usual_format();
	recorder record;
	const auto instance = loaded.make(&record);
	event_watch watch(instance.get(), found);
	start(instance.get(), format);
	found->begin("hearing a scene");
	signal_source scene(signal_source::SCENE, format);
	for (int second = 0; second < 8; ++second) {
		hear(instance.get(), &scene, format, 1.0, &record);
		watch.look();
	}
	stop(instance.get());
	if (instance->stray_notifications() > 0)
		found->fail(
			"It notifies from a thread of its own; only the daemon's thread may, from within process for instance.");
	if (instance->unknown_notifications() > 0)
		found->fail("It notifies of an event that it does not have.");
	found->note(std::to_string(record.lines.size()) + " values told in 8 s of noise and pauses");
}

constexpr check_case checks[] = {
	{"events", "describes its events as the daemon reads them", check_described},
	{"notifications", "tells of its own events only, in the daemon's thread", check_notifications},
};

} // namespace

std::span<const check_case> event_checks()
{
	return checks;
}

} // namespace hs_tool
