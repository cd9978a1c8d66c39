/*
 * A plug-in that does what a test's script says, and keeps a record of every call.
 *
 * The library has one file but any number of names: it offers a factory "hear-sense.NAME" for each
 * "libspa-hs-NAME.so" in the folder it was loaded from that is a link to it. A library cannot learn by
 * which link it was loaded, so it looks for all of them.
 *
 * "script" in the plug-in's configuration names the script (script.hpp). An instance is called NAME-N,
 * N counting from 0 in the order in which the daemon made the handles of that plug-in.
 *
 * While audio flows, each process call first reads the lines that were added to the instance's control
 * file, so that a value changes between two buffers and never in the middle of one:
 *
 *   set TITLE VALUE     gives the event or setting TITLE the value VALUE (JSON)
 *   pod TITLE KIND      changes the kind of POD that describes it
 *   notify INDEX        calls notify_event
 *   returns METHOD N    changes the result of a method
 */
#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <spa/pod/iter.h>
#include <spa/support/plugin.h>

#include <dlfcn.h>

#include <hear-sense/plugin.h>

#include "record.hpp"
#include "script-pod.hpp"
#include "script.hpp"

namespace {

using Text = std::optional<std::string>;

/** One event's hs_event_info with the texts and arrays that it points to. */
struct EventInfo {
	Text name;
	Text nice_name;
	std::vector<std::array<Text, 3>> topic_texts;
	std::vector<hs_event_topic> topics;
	std::vector<const hs_event_topic *> topic_pointers;
	hs_event_info info{};
};

const char *c_str(const Text &text)
{
	return text ? text->c_str() : nullptr;
}

class Instance
{
public:
	Instance(const std::string &name, const Json &script, const spa_dict *config);

	hs_plugin_interface *get_interface(const char *type);
	int init_handle_result() const;
	void clear();

private:
	static int on_init(void *obj, const hs_stream_info *info, const spa_dict *config);
	static void on_deinit(void *obj);
	static int on_activate(void *obj);
	static void on_deactivate(void *obj);
	static int on_get_setting(void *obj, uint32_t index, spa_pod **result, spa_pod_builder *builder);
	static int on_get_event(void *obj, uint32_t index, spa_pod **result, spa_pod_builder *builder);
	static int on_get_settings(void *obj, spa_pod_builder *builder);
	static int on_set_settings(void *obj, const spa_pod *settings);
	static void on_process(void *obj, spa_buffer *buffer);

	RecordLine line(std::string_view method) const;
	void keep(const RecordLine &record) const;
	int finish(const std::string &method, int otherwise);
	int enumerate(const char *method, Json &items, uint32_t index, spa_pod **result, spa_pod_builder *builder);
	void store(const std::string &title, const Json &value);
	Json *find(const std::string &title);
	void build_methods();
	void build_events();
	void read_commands();
	void obey(const std::string &command);

	std::string id_;
	Json script_;
	std::string type_;
	Text name_;
	Text interface_name_;
	Text schema_;
	Text settings_schema_;
	Json settings_;
	Json events_;
	std::vector<std::unique_ptr<EventInfo>> event_infos_;
	std::vector<const hs_event_info *> event_info_pointers_;
	std::map<std::string, std::size_t> calls_;
	std::map<std::string, int> forced_results_;
	std::vector<std::uint64_t> own_pod_;
	hs_stream_info stream_{};
	std::streamoff control_offset_ = 0;
	std::int64_t process_calls_ = 0;
	hs_plugin_methods methods_{};
	hs_plugin_interface interface_{};
};

std::string dict_to_json(const spa_dict *dict)
{
	std::string result = "{";
	const spa_dict_item *item = nullptr;

	if (dict == nullptr)
		return "null";
	spa_dict_for_each(item, dict)
	{
		if (result.size() > 1)
			result += ", ";
		result += json_quote(item->key) + ": " + (item->value != nullptr ? json_quote(item->value) : "null");
	}
	return result + "}";
}

bool contains(const Json &array, std::string_view text)
{
	for (const Json &item : array.items) {
		if (item.text == text)
			return true;
	}
	return false;
}

std::string upper(std::string text)
{
	for (char &c : text)
		c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
	return text;
}

double peak_of(const spa_data &data, std::uint32_t format)
{
	const auto *bytes = static_cast<const std::uint8_t *>(data.data) + data.chunk->offset;
	double peak = 0;

	if (format == SPA_AUDIO_FORMAT_F32P || format == SPA_AUDIO_FORMAT_F32) {
		const auto *samples = reinterpret_cast<const float *>(bytes);
		for (std::size_t i = 0; i < data.chunk->size / sizeof(float); i++)
			peak = std::max(peak, static_cast<double>(std::fabs(samples[i])));
	} else if (format == SPA_AUDIO_FORMAT_S16P || format == SPA_AUDIO_FORMAT_S16) {
		const auto *samples = reinterpret_cast<const std::int16_t *>(bytes);
		for (std::size_t i = 0; i < data.chunk->size / sizeof(std::int16_t); i++)
			peak = std::max(peak, std::abs(static_cast<double>(samples[i])) / 32768.0);
	}
	return peak;
}

Instance::Instance(const std::string &name, const Json &script, const spa_dict *config)
	: script_(script)
{
	static std::map<std::string, int> counts;

	id_ = name + "-" + std::to_string(counts[name]++);
	type_ = script_.at("interface_type").str(HS_PLUGIN_INTERFACE_TYPE_PREFIX + upper(name));
	name_ = script_.at("name").text_or_null("The " + name + " plug-in");
	interface_name_ = script_.at("interface_name").text_or_null("If_" + name);
	schema_ = script_.at("schema").text_or_null(name + ".schema.json");
	settings_schema_ = script_.at("settings_schema").text_or_null(name + ".settings.json");
	settings_ = script_.at("settings");
	events_ = script_.at("events");
	build_methods();
	build_events();
	interface_.type = type_.c_str();
	interface_.version = static_cast<std::uint32_t>(script_.at("version").integer(HS_PLUGIN_INTERFACE_VERSION));
	interface_.funcs = script_.at("no_funcs").is_true() ? nullptr : &methods_;
	interface_.data = this;
	interface_.name = c_str(name_);
	interface_.interface_name = c_str(interface_name_);
	interface_.schema = c_str(schema_);
	interface_.settings_schema = c_str(settings_schema_);
	interface_.events = event_info_pointers_.empty() ? nullptr : event_info_pointers_.data();
	interface_.n_events = event_info_pointers_.size();
	keep(line("load").json("config", dict_to_json(config)));
}

void Instance::build_methods()
{
	const Json &absent = script_.at("absent");

	methods_.init = contains(absent, "init") ? nullptr : on_init;
	methods_.deinit = contains(absent, "deinit") ? nullptr : on_deinit;
	methods_.activate = contains(absent, "activate") ? nullptr : on_activate;
	methods_.deactivate = contains(absent, "deactivate") ? nullptr : on_deactivate;
	methods_.get_setting = contains(absent, "get_setting") ? nullptr : on_get_setting;
	methods_.get_event = contains(absent, "get_event") ? nullptr : on_get_event;
	methods_.get_settings = contains(absent, "get_settings") ? nullptr : on_get_settings;
	methods_.set_settings = contains(absent, "set_settings") ? nullptr : on_set_settings;
	methods_.process = contains(absent, "process") ? nullptr : on_process;
}

void Instance::build_events()
{
	for (const Json &event : events_.items) {
		const Json &info = event.at("info");
		if (info.kind == Json::Kind::null)
			continue;
		auto result = std::make_unique<EventInfo>();
		const std::string title = event.at("title").str("");
		result->name = info.at("name").text_or_null(title);
		result->nice_name = info.at("nice_name").text_or_null("Nice " + title);
		for (const Json &topic : info.at("topics").items) {
			auto &texts = result->topic_texts.emplace_back();
			for (std::size_t i = 0; i < texts.size() && i < topic.items.size(); i++)
				texts[i] = topic.items[i].text_or_null("");
		}
		for (const auto &texts : result->topic_texts) {
			result->topics.push_back(
				{.name = c_str(texts[0]), .nice_name = c_str(texts[1]), .namespace_ = c_str(texts[2])});
		}
		const std::vector<Json> &topics = info.at("topics").items;
		for (std::size_t i = 0; i < topics.size(); i++) {
			const bool null = topics[i].kind == Json::Kind::null;
			result->topic_pointers.push_back(null ? nullptr : &result->topics[i]);
		}
		result->info.name = c_str(result->name);
		result->info.nice_name = c_str(result->nice_name);
		result->info.isDeprecated = info.at("isDeprecated").is_true();
		result->info.isApplicationData = info.at("isApplicationData").is_true();
		result->info.isPropertyState = info.at("isPropertyState").is_true();
		result->info.topics = result->topic_pointers.data();
		result->info.n_topics = result->topic_pointers.size();
		result->info.is_public = info.at("is_public").is_true();
		result->info.data_types = static_cast<std::uint32_t>(info.at("data_types").integer(0));
		event_info_pointers_.push_back(&result->info);
		event_infos_.push_back(std::move(result));
	}
}

RecordLine Instance::line(std::string_view method) const
{
	return RecordLine(id_, method);
}

void Instance::keep(const RecordLine &record) const
{
	const std::string path = script_.at("record").str("");

	if (!path.empty())
		record.append_to(path);
}

/** Ends a call of `method`: notifies where the script says so and gives the result it asks for. */
int Instance::finish(const std::string &method, int otherwise)
{
	const Json &notified = script_.at("notify_in").at(method);
	const Json &scripted = script_.at("returns").at(method);
	const std::size_t call = calls_[method]++;

	if (notified.kind == Json::Kind::bare && interface_.notify_event != nullptr)
		interface_.notify_event(&interface_, static_cast<std::uint32_t>(notified.integer(0)));
	if (const auto forced = forced_results_.find(method); forced != forced_results_.end())
		return forced->second;
	if (!scripted.items.empty()) {
		const std::size_t last = scripted.items.size() - 1;
		return static_cast<int>(scripted.items[std::min(call, last)].integer(otherwise));
	}
	return static_cast<int>(scripted.integer(otherwise));
}

hs_plugin_interface *Instance::get_interface(const char *type)
{
	const bool known = type_ == type;

	keep(line("get_interface").text("type", type).flag("known", known));
	return known ? &interface_ : nullptr;
}

int Instance::init_handle_result() const
{
	return static_cast<int>(script_.at("init_handle").integer(0));
}

void Instance::clear()
{
	keep(line("clear"));
	finish("clear", 0);
}

int Instance::on_init(void *obj, const hs_stream_info *info, const spa_dict *config)
{
	auto *self = static_cast<Instance *>(obj);
	std::string position = "[";

	self->stream_ = *info;
	for (std::uint32_t i = 0; i < std::min<std::uint32_t>(info->info.channels, SPA_AUDIO_MAX_CHANNELS); i++)
		position += (i > 0 ? ", " : "") + std::to_string(info->info.position[i]);
	const int result = self->finish("init", 0);
	self->keep(self->line("init")
			   .number("format", info->info.format)
			   .number("flags", info->info.flags)
			   .number("rate", info->info.rate)
			   .number("channels", info->info.channels)
			   .json("position", position + "]")
			   .text("source", info->source_name)
			   .text("connection_type", info->connection_type)
			   .text("acoustic_id", info->acoustic_id)
			   .json("config", dict_to_json(config))
			   .number("result", result));
	return result;
}

void Instance::on_deinit(void *obj)
{
	auto *self = static_cast<Instance *>(obj);

	self->keep(self->line("deinit"));
	self->finish("deinit", 0);
}

int Instance::on_activate(void *obj)
{
	auto *self = static_cast<Instance *>(obj);
	const int result = self->finish("activate", 0);

	self->keep(self->line("activate").number("result", result));
	return result;
}

void Instance::on_deactivate(void *obj)
{
	auto *self = static_cast<Instance *>(obj);

	self->keep(self->line("deactivate"));
	self->finish("deactivate", 0);
}

int Instance::enumerate(const char *method, Json &items, uint32_t index, spa_pod **result, spa_pod_builder *builder)
{
	const bool count_only = result == nullptr && builder == nullptr;

	if (count_only)
		return finish(std::string(method) + "_count", static_cast<int>(items.items.size()));
	if (result == nullptr || builder == nullptr || index >= items.items.size()) {
		keep(line(method).number("index", index).text("refused", "out of range"));
		return -EINVAL;
	}
	*result = build_description(items.items[index], builder, own_pod_);
	return finish(method, 1);
}

int Instance::on_get_setting(void *obj, uint32_t index, spa_pod **result, spa_pod_builder *builder)
{
	auto *self = static_cast<Instance *>(obj);

	self->keep(self->line("get_setting").number("index", index).flag("count", result == nullptr));
	return self->enumerate("get_setting", self->settings_, index, result, builder);
}

/* Called for every event after every buffer, so it is only recorded as long as process is. */
int Instance::on_get_event(void *obj, uint32_t index, spa_pod **result, spa_pod_builder *builder)
{
	auto *self = static_cast<Instance *>(obj);

	if (self->process_calls_ <= self->script_.at("record_process").integer(3))
		self->keep(self->line("get_event").number("index", index).flag("count", result == nullptr));
	return self->enumerate("get_event", self->events_, index, result, builder);
}

int Instance::on_get_settings(void *obj, spa_pod_builder *builder)
{
	auto *self = static_cast<Instance *>(obj);
	spa_pod_frame frame{};

	spa_pod_builder_push_struct(builder, &frame);
	for (const Json &setting : self->settings_.items) {
		spa_pod_builder_string(builder, setting.at("title").str("").c_str());
		add_scalar(builder, setting.at("type").str("boolean"), setting.at("value"));
	}
	spa_pod_builder_pop(builder, &frame);
	const int result = self->finish("get_settings", 0);
	self->keep(self->line("get_settings").number("result", result));
	return result;
}

int Instance::on_set_settings(void *obj, const spa_pod *settings)
{
	auto *self = static_cast<Instance *>(obj);
	const int result = self->finish("set_settings", 0);
	const std::string pod = pod_to_json(settings);

	self->keep(self->line("set_settings").json("pod", pod).number("result", result));
	if (const auto parsed = json_parse(pod); result >= 0 && parsed && parsed->items.size() == 2) {
		const std::vector<Json> &children = parsed->items[1].items;
		if (children.size() == 2)
			self->store(children[0].items[1].text, children[1].items[1]);
	}
	return result;
}

void Instance::on_process(void *obj, spa_buffer *buffer)
{
	auto *self = static_cast<Instance *>(obj);

	self->read_commands();
	self->process_calls_++;
	if (self->process_calls_ <= self->script_.at("record_process").integer(3)) {
		double peak = 0;
		for (std::uint32_t i = 0; i < buffer->n_datas; i++)
			peak = std::max(peak, peak_of(buffer->datas[i], self->stream_.info.format));
		self->keep(self->line("process")
				   .number("n_datas", buffer->n_datas)
				   .number("size", buffer->n_datas > 0 ? buffer->datas[0].chunk->size : 0)
				   .number("format", self->stream_.info.format)
				   .real("peak", peak));
	}
	self->finish("process", 0);
}

Json *Instance::find(const std::string &title)
{
	for (Json *list : {&events_, &settings_}) {
		for (Json &item : list->items) {
			if (item.at("title").str("") == title)
				return &item;
		}
	}
	return nullptr;
}

void Instance::store(const std::string &title, const Json &value)
{
	Json *item = find(title);

	if (item == nullptr)
		return;
	for (JsonMember &member : item->members) {
		if (member.name == "value")
			member.value = value;
	}
}

void Instance::read_commands()
{
	const std::string folder = script_.at("control").str("");
	std::string command;

	if (folder.empty())
		return;
	std::ifstream file(folder + "/" + id_ + ".ctl", std::ios::binary);
	if (!file.seekg(control_offset_))
		return;
	while (std::getline(file, command) && !file.eof()) {
		control_offset_ += static_cast<std::streamoff>(command.size()) + 1;
		obey(command);
	}
}

void Instance::obey(const std::string &command)
{
	const std::size_t first = command.find(' ');
	const std::size_t second = command.find(' ', first + 1);
	const std::string verb = command.substr(0, first);
	const std::string subject = command.substr(first + 1, second - first - 1);
	const std::string rest = second == std::string::npos ? "" : command.substr(second + 1);
	bool known = true;

	if (verb == "set") {
		const auto value = json_parse(rest);
		known = value.has_value() && find(subject) != nullptr;
		if (known)
			store(subject, *value);
	} else if (verb == "pod") {
		Json *item = find(subject);
		known = item != nullptr;
		if (known) {
			std::erase_if(item->members, [](const JsonMember &member) { return member.name == "pod"; });
			JsonMember &kind = item->members.emplace_back();
			kind.name = "pod";
			kind.value.kind = Json::Kind::string;
			kind.value.text = rest;
		}
	} else if (verb == "notify") {
		interface_.notify_event(&interface_, static_cast<std::uint32_t>(std::stoul(subject)));
	} else if (verb == "returns") {
		forced_results_[subject] = std::stoi(rest);
	} else {
		known = false;
	}
	keep(line("command").text("command", command).flag("known", known));
}

/** What the daemon allocates for a handle. */
struct Handle {
	spa_handle handle;
	Instance *instance;
};

struct Factory {
	std::string name;
	std::string factory_name;
	spa_handle_factory factory;
};

int handle_get_interface(spa_handle *handle, const char *type, void **interface)
{
	*interface = reinterpret_cast<Handle *>(handle)->instance->get_interface(type);
	return *interface != nullptr ? 0 : -ENOENT;
}

int handle_clear(spa_handle *handle)
{
	auto *self = reinterpret_cast<Handle *>(handle);

	self->instance->clear();
	delete self->instance;
	return 0;
}

size_t factory_get_size(const spa_handle_factory *, const spa_dict *)
{
	return sizeof(Handle);
}

int factory_init(const spa_handle_factory *factory, spa_handle *handle, const spa_dict *info, const spa_support *,
	uint32_t)
{
	const std::string prefix = HS_PLUGIN_FACTORY_PREFIX;
	const std::string name = std::string(factory->name).substr(prefix.size());
	const char *path = info != nullptr ? spa_dict_lookup(info, "script") : nullptr;
	Json script;

	if (path != nullptr) {
		const auto text = read_file(path);
		const auto parsed = text ? json_parse(*text) : std::nullopt;
		if (!parsed) {
			std::fprintf(stderr, "scripted plug-in: cannot read script %s\n", path);
			return -EINVAL;
		}
		script = *parsed;
	}
	auto *self = reinterpret_cast<Handle *>(handle);
	auto instance = std::make_unique<Instance>(name, script, info);
	if (const int result = instance->init_handle_result(); result < 0)
		return result;
	self->handle.version = SPA_VERSION_HANDLE;
	self->handle.get_interface = handle_get_interface;
	self->handle.clear = handle_clear;
	self->instance = instance.release();
	return 0;
}

int factory_enum_interface_info(const spa_handle_factory *, const spa_interface_info **, uint32_t *)
{
	return 0;
}

std::vector<std::unique_ptr<Factory>> find_factories()
{
	const std::string prefix = "libspa-hs-";
	const std::string suffix = ".so";
	std::vector<std::unique_ptr<Factory>> result;
	std::error_code error;
	Dl_info self{};

	if (dladdr(reinterpret_cast<const void *>(&find_factories), &self) == 0)
		return result;
	const std::filesystem::path own = self.dli_fname;
	for (const auto &entry : std::filesystem::directory_iterator(own.parent_path(), error)) {
		const std::string file = entry.path().filename().string();
		if (!file.starts_with(prefix) || !file.ends_with(suffix) ||
			!std::filesystem::equivalent(entry.path(), own, error))
			continue;
		auto factory = std::make_unique<Factory>();
		factory->name = file.substr(prefix.size(), file.size() - prefix.size() - suffix.size());
		factory->factory_name = HS_PLUGIN_FACTORY_PREFIX + factory->name;
		factory->factory = {
			.version = SPA_VERSION_HANDLE_FACTORY,
			.name = factory->factory_name.c_str(),
			.info = nullptr,
			.get_size = factory_get_size,
			.init = factory_init,
			.enum_interface_info = factory_enum_interface_info,
		};
		result.push_back(std::move(factory));
	}
	return result;
}

} // namespace

SPA_EXPORT
int spa_handle_factory_enum(const spa_handle_factory **factory, uint32_t *index)
{
	static const std::vector<std::unique_ptr<Factory>> factories = find_factories();

	if (*index >= factories.size())
		return 0;
	*factory = &factories[(*index)++]->factory;
	return 1;
}
