/* SPDX-License-Identifier: MIT */
/*
 * A plug-in for measuring the daemon: it hears nothing and says what it is told to say.
 *
 * The one library is "idle" and "p01" to "p16". Its "plugin.config" takes
 *
 *	events = 4		how many events, "Event00" and so on, it has
 *	public = true		whether they are for the main bus
 *	stamps = true		the first event gets the time of each buffer, in nanoseconds
 *	counts = 20		the first event counts, by so many notifications for each buffer
 */
#include <hear-sense/plugin.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include <spa/param/param.h>
#include <spa/param/props.h>
#include <spa/pod/builder.h>
#include <spa/utils/string.h>

#include <time.h>

namespace {

constexpr uint64_t nsec_per_sec = 1000000000;

struct instance {
	std::string type;
	std::string interface_name;
	std::deque<std::string> titles;
	std::deque<hs_event_info> infos;
	std::vector<const hs_event_info *> pointers;
	hs_plugin_interface interface {
	};
	bool stamps;
	uint32_t counts;
	/** Of the first event. */
	int64_t value = 0;
};

struct handle {
	spa_handle handle;
	instance *self;
};

int start(void *, const hs_stream_info *, const spa_dict *)
{
	return 0;
}

int get_event(void *object, uint32_t index, spa_pod **result, spa_pod_builder *builder)
{
	const auto *self = static_cast<const instance *>(object);
	if (!result)
		return static_cast<int>(self->titles.size());
	if (index >= self->titles.size())
		return -EINVAL;
	spa_pod_frame frame{};
	spa_pod_builder_push_object(builder, &frame, SPA_TYPE_OBJECT_PropInfo, SPA_PARAM_PropInfo);
	spa_pod_builder_prop(builder, SPA_PROP_INFO_name, 0);
	spa_pod_builder_string(builder, self->titles[index].c_str());
	spa_pod_builder_prop(builder, SPA_PROP_INFO_description, 0);
	spa_pod_builder_string(builder, "For measuring");
	spa_pod_builder_prop(builder, SPA_PROP_INFO_type, 0);
	if (index == 0)
		spa_pod_builder_long(builder, self->value);
	else
		spa_pod_builder_double(builder, 0.5);
	*result = static_cast<spa_pod *>(spa_pod_builder_pop(builder, &frame));
	return 0;
}

void process(void *object, spa_buffer *)
{
	auto *self = static_cast<instance *>(object);
	for (uint32_t i = 0; i < self->counts; ++i) {
		++self->value;
		self->interface.notify_event(&self->interface, 0);
	}
	if (self->stamps) {
		timespec now{};
		clock_gettime(CLOCK_MONOTONIC, &now);
		self->value = static_cast<int64_t>(static_cast<uint64_t>(now.tv_sec) * nsec_per_sec) + now.tv_nsec;
	}
}

constexpr hs_plugin_methods methods = [] {
	hs_plugin_methods made{};
	made.init = start;
	made.get_event = get_event;
	made.process = process;
	return made;
}();

const char *look_up(const spa_dict *config, const char *key)
{
	return config ? spa_dict_lookup(config, key) : nullptr;
}

uint32_t number_of(const spa_dict *config, const char *key, uint32_t otherwise)
{
	const char *text = look_up(config, key);
	return text ? static_cast<uint32_t>(std::strtoul(text, nullptr, 10)) : otherwise;
}

void add_events(instance *self, const spa_dict *config)
{
	const uint32_t n_events = number_of(config, "events", 1);
	const bool is_public = spa_atob(look_up(config, "public"));
	for (uint32_t i = 0; i < n_events; ++i) {
		char title[32];
		std::snprintf(title, sizeof(title), "Event%02u", i);
		hs_event_info &info = self->infos.emplace_back();
		info.name = self->titles.emplace_back(title).c_str();
		info.nice_name = info.name;
		info.is_public = is_public;
		self->pointers.push_back(&info);
	}
}

instance *make_instance(const char *name, const spa_dict *config)
{
	auto *self = new instance{};
	self->type = HS_PLUGIN_INTERFACE_TYPE_PREFIX;
	for (const char *c = name; *c; ++c)
		self->type += *c >= 'a' && *c <= 'z' ? static_cast<char>(*c - 'a' + 'A') : *c;
	self->interface_name = std::string{"Bench_"} + name;
	self->stamps = spa_atob(look_up(config, "stamps"));
	self->counts = number_of(config, "counts", 0);
	add_events(self, config);
	self->interface.type = self->type.c_str();
	self->interface.version = HS_PLUGIN_INTERFACE_VERSION;
	self->interface.funcs = &methods;
	self->interface.data = self;
	self->interface.name = self->interface_name.c_str();
	self->interface.interface_name = self->interface_name.c_str();
	self->interface.events = self->pointers.data();
	self->interface.n_events = self->pointers.size();
	return self;
}

int get_interface(spa_handle *object, const char *type, void **interface)
{
	instance *self = reinterpret_cast<handle *>(object)->self;
	if (self->type != type)
		return -ENOENT;
	*interface = &self->interface;
	return 0;
}

int clear(spa_handle *object)
{
	delete reinterpret_cast<handle *>(object)->self;
	return 0;
}

size_t get_size(const spa_handle_factory *, const spa_dict *)
{
	return sizeof(handle);
}

int init(const spa_handle_factory *factory, spa_handle *object, const spa_dict *config, const spa_support *, uint32_t)
{
	auto *made = reinterpret_cast<handle *>(object);
	made->handle.version = SPA_VERSION_HANDLE;
	made->handle.get_interface = get_interface;
	made->handle.clear = clear;
	made->self = make_instance(factory->name + std::strlen(HS_PLUGIN_FACTORY_PREFIX), config);
	return 0;
}

int enum_interface_info(const spa_handle_factory *, const spa_interface_info **, uint32_t *)
{
	return 0;
}

/** Never freed: the daemon may ask until it ends. */
const std::vector<spa_handle_factory> &factories()
{
	static const auto *made = [] {
		auto *list = new std::vector<spa_handle_factory>;
		for (int i = 0; i <= 16; ++i) {
			char name[64];
			std::snprintf(name, sizeof(name),
				      i ? HS_PLUGIN_FACTORY_PREFIX "p%02d" : HS_PLUGIN_FACTORY_PREFIX "idle", i);
			spa_handle_factory factory{};
			factory.version = SPA_VERSION_HANDLE_FACTORY;
			factory.name = strdup(name);
			factory.get_size = get_size;
			factory.init = init;
			factory.enum_interface_info = enum_interface_info;
			list->push_back(factory);
		}
		return list;
	}();
	return *made;
}

} // namespace

SPA_EXPORT
int spa_handle_factory_enum(const spa_handle_factory **factory, uint32_t *index)
{
	if (*index >= factories().size())
		return 0;
	*factory = &factories()[(*index)++];
	return 1;
}
