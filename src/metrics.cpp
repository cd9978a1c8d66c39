#include "metrics.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string>

#include <spa/utils/string.h>

#include <fcntl.h>
#include <unistd.h>

#include "assert.hpp"
#include "atomic-file.hpp"
#include "log.hpp"
#include "owned.hpp"
#include "plugin.hpp"
#include "source.hpp"

namespace {

constexpr char enabled_key[] = "enabled_count";
constexpr char disabled_key[] = "disabled_count";

/** How much of a metrics file is read, a terminator included. */
constexpr size_t read_size = 1024;

std::optional<std::string> metrics_path;

hs_malloc_ptr<char> source_metrics_construct_file_path(const hs_source *source)
{
	if (!metrics_path) {
		pw_log_warn("Metrics path is not set");
		return nullptr;
	}

	const hs_malloc_ptr<char> name{strdup(source->name.c_str())};
	if (!name) {
		pw_log_warn("Failed to allocate memory for sanitized source name");
		return nullptr;
	}
	std::replace(name.get(), name.get() + std::strlen(name.get()), '.', '_');

	static constexpr char format[] = "%s%s%s_%s_source_metrics.json";
	const char *plugin = source->plugin->name;
	const size_t size = metrics_path->size() + 1 + std::strlen(plugin) + std::strlen(name.get()) + sizeof(format);
	hs_malloc_ptr<char> path{static_cast<char *>(std::malloc(size))};
	if (!path) {
		pw_log_warn("Failed to allocate memory for metrics file path");
		return nullptr;
	}
	std::snprintf(path.get(), size, format, metrics_path->c_str(), metrics_path->ends_with('/') ? "" : "/", plugin,
		      name.get());
	return path;
}

/**
 * Reads the number after the first `key` anywhere in the file, 0 where there is none. Counters that other
 * software has edited are taken as they are.
 */
bool read_json_int(const char *path, const char *key, uint32_t *value)
{
	/* A FIFO in the file's place has nothing to read; waiting for its writer would stop the daemon. */
	hs_fd fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
	const hs_file_ptr file(fd.get() < 0 ? nullptr : fdopen(fd.get(), "r"));
	if (!file) {
		pw_log_warn("Failed to open metrics file at path: %s", path);
		return false;
	}
	fd.release();
	char text[read_size];
	const size_t length = std::fread(text, 1, sizeof(text) - 1, file.get());
	if (length == 0) {
		pw_log_warn("Failed to read metrics file at path: %s", path);
		return false;
	}
	text[length] = '\0';

	const char *found = std::strstr(text, key);
	if (!found) {
		*value = 0;
		return true;
	}
	found += std::strlen(key);
	found += std::strspn(found, " \":");
	*value = static_cast<uint32_t>(std::strtol(found, nullptr, 10));
	return true;
}

int write_source_metrics(FILE *stream, void *data)
{
	const auto *metrics = static_cast<const hs_source_metrics *>(data);
	const hs_source *source = metrics->source;
	const char *name = source->interface ? source->interface->name : nullptr;

	return std::fprintf(stream,
			    "{\n"
			    "    \"name\": \"%s\",\n"
			    "    \"source\": \"%s\",\n"
			    "    \"enabled_count\": %d,\n"
			    "    \"disabled_count\": %d,\n"
			    "    \"dbus_object_path\": \"%s\",\n"
			    "    \"dbus_interface\": \"%s\"\n"
			    "}\n",
			    name ? name : "(null)", source->name.c_str(), static_cast<int>(metrics->enabled_count),
			    static_cast<int>(metrics->disabled_count), source->object_path.c_str(),
			    source->settings_interface.c_str());
}

void source_metrics_counter_add_value(hs_source_metrics *metrics, const char *counter, uint32_t value)
{
	metrics->enabled_count = 0;
	metrics->disabled_count = 0;

	const hs_malloc_ptr<char> path = source_metrics_construct_file_path(metrics->source);
	if (!path)
		return;
	if (access(path.get(), F_OK) == 0) {
		if (!read_json_int(path.get(), enabled_key, &metrics->enabled_count) ||
		    !read_json_int(path.get(), disabled_key, &metrics->disabled_count))
			return;
	}

	if (spa_streq(counter, enabled_key)) {
		metrics->enabled_count += value;
	} else if (spa_streq(counter, disabled_key)) {
		metrics->disabled_count += value;
	} else {
		pw_log_warn("Unknown counter name: %s", counter ? counter : "(null)");
		return;
	}

	if (hs_atomic_file_write(path.get(), write_source_metrics, metrics) < 0)
		pw_log_warn("Failed to write metrics file at path: %s", path.get());
}

} // namespace

void hs_metrics_init(const char *path)
{
	HS_ASSERT(path);

	metrics_path = path;
}

void hs_metrics_deinit()
{
	metrics_path.reset();
}

hs_metrics *hs_metrics_create(uint32_t type, const hs_source *source)
{
	if (!metrics_path) {
		pw_log_warn("Metrics module is not initialized. Call hs_metrics_init() first.");
		return nullptr;
	}

	std::unique_ptr<hs_metrics> metrics{new (std::nothrow) hs_metrics{type, false, nullptr}};
	if (!metrics) {
		pw_log_warn("Failed to allocate memory for metrics");
		return nullptr;
	}
	if (type == HS_METRICS_TYPE_SOURCE) {
		metrics->data = new (std::nothrow) hs_source_metrics{source, 0, 0};
		if (!metrics->data) {
			pw_log_warn("Failed to allocate memory for source metrics");
			return nullptr;
		}
	}
	return metrics.release();
}

void hs_metrics_destroy(hs_metrics *metrics)
{
	if (!metrics)
		return;
	if (metrics->type == HS_METRICS_TYPE_SOURCE)
		delete static_cast<hs_source_metrics *>(metrics->data);
	delete metrics;
}

void hs_metrics_set_active(hs_metrics *metrics, bool active)
{
	if (!metrics) {
		pw_log_warn("Metrics object is NULL");
		return;
	}
	if (metrics->type != HS_METRICS_TYPE_SOURCE) {
		pw_log_warn("Unknown metrics type: %d", static_cast<int>(metrics->type));
		return;
	}
	metrics->active = active;
	source_metrics_counter_add_value(static_cast<hs_source_metrics *>(metrics->data), enabled_key, 0);
}

void hs_metrics_increment_counter(hs_metrics *metrics, const char *counter)
{
	if (!metrics) {
		pw_log_warn("Metrics object is NULL");
		return;
	}
	if (!metrics->active)
		return;
	if (metrics->type != HS_METRICS_TYPE_SOURCE) {
		pw_log_warn("Unknown metrics type: %d", static_cast<int>(metrics->type));
		return;
	}
	source_metrics_counter_add_value(static_cast<hs_source_metrics *>(metrics->data), counter, 1);
}
