#include "pw-source.hpp"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <new>
#include <numeric>
#include <type_traits>
#include <vector>

#include <pipewire/keys.h>
#include <spa/utils/dict.h>
#include <spa/utils/string.h>

#include <regex.h>

#include "assert.hpp"
#include "context.hpp"
#include "dbus.hpp"
#include "log.hpp"
#include "loop.hpp"
#include "pcm.hpp"
#include "plugin.hpp"
#include "refcount.hpp"
#include "source-name.hpp"
#include "source.hpp"
#include "utf8.hpp"

static_assert(std::is_standard_layout_v<hs_pw_source>);

namespace {

constexpr char default_pattern[] = "AudioDevice[0-9][0-9]*Input[0-9][0-9]*\\.Unprocessed";
constexpr char source_prefix[] = "source.";
constexpr char device_prefix[] = "AudioDevice";
constexpr size_t settings_path_size = 4096;

/* The C library compiles nested groups recursively: some ten thousand of them overflow the stack. */
constexpr size_t max_pattern_length = 1023;
/*
 * It also writes out repetitions, one inside the other ("x++++++" is 64 times x), and takes more than the cube of
 * their number in time where parts of them may be left out. This many are done within a fraction of a second.
 */
constexpr size_t max_written_out_elements = 256;
constexpr size_t max_written_out_options = 16;

/** The larger number of an interval such as "{2,5}"; 1 where there is none. */
size_t max_repetitions(const char *interval)
{
	size_t most = 1;
	for (const char *c = interval; *c && *c != '}'; ++c) {
		if (std::isdigit(static_cast<unsigned char>(*c)) && !std::isdigit(static_cast<unsigned char>(c[-1])))
			most = std::max<size_t>(most, std::strtoul(c, nullptr, 10));
	}
	return std::min(most, max_pattern_length);
}

/** The last character of a bracket expression; that of the pattern where it has no end. */
const char *end_of_bracket(const char *bracket)
{
	const char *c = bracket + 1;
	c += *c == '^';
	c += *c == ']';
	for (; *c && *c != ']'; ++c) {
		if (c[0] != '[' || !c[1] || !std::strchr(":.=", c[1]))
			continue;
		const char close[] = {c[1], ']', '\0'};
		const char *end = std::strstr(c + 2, close);
		if (!end)
			break;
		c = end + 1;
	}
	return *c == ']' ? c : bracket + std::strlen(bracket) - 1;
}

/** What there is of a pattern. */
struct extent {
	size_t elements;
	/** What may be left out. */
	size_t options;
};

constexpr extent option = {1, 1};

extent operator+(extent a, extent b)
{
	return {std::min(a.elements + b.elements, max_pattern_length + 1),
		std::min(a.options + b.options, max_pattern_length + 1)};
}

extent operator*(extent a, size_t times)
{
	return {std::min(a.elements * times, max_pattern_length + 1),
		std::min(a.options * times, max_pattern_length + 1)};
}

/** Whether an alternative ends where `c` stands. */
bool is_end_of_alternative(char c)
{
	return c == '\0' || c == '|' || c == ')';
}

/** The pattern once its repetitions are written out; `*n_options` is what may be left out of it as it stands. */
extent write_out(const char *pattern, size_t *n_options)
{
	/* What stands before the last element, for the pattern and each group that is open. */
	std::vector<extent> before{{}};
	extent element = is_end_of_alternative(*pattern) ? option : extent{};
	*n_options = element.options;
	for (const char *c = pattern; *c; ++c) {
		const bool is_interval = *c == '{' && std::strchr(c, '}');
		if (*c == '+') {
			element = element * 2;
		} else if (*c == '?' || *c == '*') {
			element = element + option;
			++*n_options;
		} else if (is_interval) {
			const bool may_be_none = c[1] == '0' || c[1] == ',';
			element = element * max_repetitions(c) + extent{0, may_be_none};
			*n_options += may_be_none;
			c = std::strchr(c, '}');
		} else if (*c == ')' && before.size() > 1) {
			element = element + before.back();
			before.pop_back();
		} else {
			const bool is_empty = (*c == '(' || *c == '|') && is_end_of_alternative(c[1]);
			before.back() = before.back() + element;
			element = is_empty ? option : extent{*c != '(', 0};
			*n_options += is_empty;
			if (*c == '(')
				before.emplace_back();
			else if (*c == '[')
				c = end_of_bracket(c);
			else if (*c == '\\' && c[1])
				++c;
		}
	}
	return std::accumulate(before.begin(), before.end(), element);
}

bool is_too_long(const char *pattern)
{
	const size_t length = std::strlen(pattern);
	if (length > max_pattern_length)
		return true;
	size_t n_options = 0;
	const extent whole = write_out(pattern, &n_options);
	return whole.elements > std::max(length, max_written_out_elements) ||
	       whole.options > std::max(n_options, max_written_out_options);
}

hs_pw_source *find_by_id(hs_context *context, uint32_t id)
{
	hs_pw_source *pw_source;
	spa_list_for_each(pw_source, &context->pw_sources, link) {
		if (pw_source->id == id)
			return pw_source;
	}
	return nullptr;
}

hs_pw_source *new_source(hs_context *context, uint32_t id, const char *name, const char *media_class)
{
	auto *source = new (std::nothrow) hs_pw_source{};
	HS_ASSERT(source);
	source->id = id;
	if (name)
		source->name = hs_utf8_repair(name);
	if (media_class)
		source->media_class = media_class;
	spa_list_append(&context->pw_sources, &source->link);
	return source;
}

std::string pattern_of(const hs_plugin *plugin)
{
	void *state = nullptr;
	while (const char *key = pw_properties_iterate(plugin->props, &state)) {
		const char *text = pw_properties_get(plugin->props, key);
		if (!text || text[0] != '{')
			continue;
		const hs_properties_ptr entry(pw_properties_new_string(text));
		if (const char *pattern = pw_properties_get(entry.get(), "node.pattern"))
			return pattern;
	}
	return default_pattern;
}

/** Whether the plug-in runs on the node; `definition` is its explicit entry for it, if any. */
bool selects_node(const hs_plugin *plugin, const char *node_name, hs_properties_ptr *definition)
{
	*definition = hs_pw_source_find_config(node_name, plugin->props);
	if (*definition)
		return true;
	const bool lists_its_nodes = hs_pw_source_find_config(nullptr, plugin->props) != nullptr;
	return !lists_its_nodes && hs_pw_source_matches_pattern(pattern_of(plugin).c_str(), node_name);
}

void publish(hs_context *context, hs_source *source)
{
	const char *name = source->name.c_str();
	if (!hs_dbus_setup_audio_chain_interface(source, context->bus))
		pw_log_error("Could not set up D-Bus Audio Chain interface on system bus for source '%s'", name);
	if (!hs_dbus_setup_source_interface(source, context->bus))
		pw_log_error("Could not set up D-Bus Source interface on system bus for source '%s'", name);

	void *cursor = nullptr;
	while (sd_bus *bus = hs_loop_bus_iterate(context->loop, &cursor)) {
		if (!hs_dbus_setup_audio_chain_interface(source, bus))
			pw_log_error("Could not set up D-Bus Audio Chain interface on private bus for source '%s'",
				     name);
		if (!hs_dbus_setup_source_interface(source, bus))
			pw_log_error("Could not set up D-Bus Source interface on private bus for source '%s'", name);
	}
	if (!hs_dbus_setup_plugin_interfaces(source))
		pw_log_error("Could not set up D-Bus plugin interfaces for source '%s'", name);
}

void try_plugin(hs_context *context, hs_plugin *plugin, hs_pw_source *pw_source)
{
	const char *name = pw_source->name.c_str();
	hs_properties_ptr definition;
	if (!selects_node(plugin, name, &definition))
		return;
	const std::string path = hs_pw_source_settings_path(plugin->settings_path, plugin->name, name);
	hs_source *source = hs_source_new(plugin, name, definition.get(), path.c_str(), pw_source);
	if (source)
		publish(context, source);
}

bool belongs_to_node(const hs_source *source, const hs_pw_source *pw_source)
{
	const char *defined = source->stream_config ? pw_properties_get(source->stream_config, "name") : nullptr;
	return (defined && pw_source->name == defined) || source->name == pw_source->name;
}

/** Two nodes may have one name: the source that was made for this node comes first. */
hs_source *find_source(hs_plugin *plugin, const hs_pw_source *pw_source)
{
	hs_source *by_name = nullptr;
	hs_source *source;
	spa_list_for_each(source, &plugin->sources, link) {
		if (!belongs_to_node(source, pw_source))
			continue;
		if (source->pcm && source->pcm->node == pw_source)
			return source;
		if (!by_name)
			by_name = source;
	}
	return by_name;
}

void emit_removed(sd_bus *bus, const std::string &path, const char *kind)
{
	const int r = sd_bus_emit_object_removed(bus, path.c_str());
	if (r < 0)
		pw_log_warn("Could not emit object removed on %s bus: %s", kind, std::strerror(-r));
}

void announce_removal(const hs_context *context, const hs_source *source, sd_bus *bus, const char *kind)
{
	emit_removed(bus, source->object_path, kind);
	if (hs_refcount_get(context->object_path_counts, source->device_path.c_str()) == 0)
		emit_removed(bus, source->device_path, kind);
	if (hs_refcount_get(context->object_path_counts, source->node_path.c_str()) == 0)
		emit_removed(bus, source->node_path, kind);
}

void unpublish(hs_context *context, hs_source *source)
{
	if (source->holds_paths) {
		source->holds_paths = false;
		hs_refcount_dec(context->object_path_counts, source->device_path.c_str());
		hs_refcount_dec(context->object_path_counts, source->node_path.c_str());
	}
	announce_removal(context, source, context->bus, "system");
	void *cursor = nullptr;
	while (sd_bus *bus = hs_loop_bus_iterate(context->loop, &cursor))
		announce_removal(context, source, bus, "private");
	hs_dbus_remove_source(source);
}

void remove_source(hs_context *context, hs_source *source)
{
	hs_pcm_destroy(source->pcm);
	source->pcm = nullptr;
	if (!source->object_path.empty() && source->plugin)
		unpublish(context, source);
	hs_source_destroy(source);
}

/** No source may go on reading a node record that is about to be freed. */
void forget_node(hs_plugin *plugin, const hs_pw_source *pw_source)
{
	hs_source *source;
	spa_list_for_each(source, &plugin->sources, link) {
		if (source->pcm && source->pcm->node == pw_source)
			source->pcm->node = nullptr;
	}
}

} // namespace

bool hs_pw_source_matches_pattern(const char *pattern, const char *node_name)
{
	regex_t compiled;
	if (is_too_long(pattern) || regcomp(&compiled, pattern, REG_EXTENDED) != 0) {
		pw_log_warn("Could not compile pattern");
		return false;
	}
	const bool matches = regexec(&compiled, node_name, 0, nullptr, 0) == 0;
	regfree(&compiled);
	return matches;
}

hs_properties_ptr hs_pw_source_find_config(const char *node_name, const pw_properties *config)
{
	void *state = nullptr;
	while (const char *key = pw_properties_iterate(config, &state)) {
		if (!spa_strstartswith(key, source_prefix))
			continue;
		const char *text = pw_properties_get(config, key);
		if (!text)
			break;
		hs_properties_ptr definition(pw_properties_new_string(text));
		const char *name = pw_properties_get(definition.get(), "node.name");
		if (name && (!node_name || spa_streq(name, node_name)))
			return definition;
	}
	return nullptr;
}

std::string hs_pw_source_settings_path(const char *settings_dir, const char *plugin_name, const char *node_name)
{
	std::string short_name = node_name;
	if (spa_strstartswith(node_name, device_prefix))
		short_name = hs_source_name_to_device(node_name);
	return hs_source_name_cut(std::string(settings_dir) + "/" + plugin_name + "-" + short_name + ".conf",
				  settings_path_size);
}

void hs_pw_source_register_source(uint32_t id, const spa_dict *props)
{
	hs_context *context = hs_context_get();
	const spa_dict_item *item;
	spa_dict_for_each(item, props) {
		if (!spa_streq(item->key, PW_KEY_NODE_NAME) || find_by_id(context, id))
			continue;
		const char *media_class = spa_dict_lookup(props, PW_KEY_MEDIA_CLASS);
		hs_pw_source *pw_source = new_source(context, id, item->value, media_class);
		hs_plugin *plugin;
		spa_list_for_each(plugin, &context->plugins, link)
			try_plugin(context, plugin, pw_source);
		pw_source->registered = true;
	}
}

void hs_pw_source_unregister_source(uint32_t id)
{
	hs_context *context = hs_context_get();
	hs_pw_source *pw_source = find_by_id(context, id);
	if (!pw_source)
		return;
	hs_plugin *plugin;
	spa_list_for_each(plugin, &context->plugins, link) {
		if (hs_source *source = find_source(plugin, pw_source))
			remove_source(context, source);
		forget_node(plugin, pw_source);
	}
	hs_pw_source_destroy(pw_source);
}

void hs_pw_source_destroy(hs_pw_source *pw_source)
{
	if (!pw_source)
		return;
	pw_log_debug("%p: destroy pw-source %s with id %d", static_cast<void *>(pw_source), pw_source->name.c_str(),
		     static_cast<int>(pw_source->id));
	spa_list_remove(&pw_source->link);
	delete pw_source;
}
