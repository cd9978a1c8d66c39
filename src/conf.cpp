#include "conf.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <pipewire/properties.h>
#include <spa/utils/string.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "assert.hpp"
#include "atomic-file.hpp"
#include "log.hpp"
#include "owned.hpp"

namespace {

constexpr size_t config_path_size = 4096;
/* Nobody writes so much by hand; a sparse file can claim more than there is memory. */
constexpr off_t max_file_size = 1024 * 1024;

int conf_filter(const dirent *entry)
{
	HS_ASSERT(entry);

	return spa_strendswith(entry->d_name, ".conf");
}

/** Lists the configuration files of a directory in alphabetical order. */
bool list_confs(const char *path, std::vector<std::string> *names)
{
	dirent **entries;
	const int n = scandir(path, &entries, conf_filter, alphasort);
	if (n < 0) {
		pw_log_warn("scandir %s failed: %m", path);
		return false;
	}

	const hs_malloc_ptr<dirent *> owner{entries};
	for (int i = 0; i < n; i++) {
		const hs_malloc_ptr<dirent> entry{entries[i]};
		names->emplace_back(entry->d_name);
	}
	return true;
}

/** Where the configuration file of that name is to be read from. */
std::string check_override(const char *conf_name, const char *path, const char *override_path)
{
	HS_ASSERT(conf_name);

	const char *directory = path;
	std::vector<std::string> names;
	if (override_path && access(override_path, R_OK) < 0) {
		pw_log_warn("access %s failed: %m", override_path);
	} else if (override_path && list_confs(override_path, &names)) {
		for (const std::string &name : names) {
			if (name == conf_name)
				directory = override_path;
		}
	}
	return std::string{directory} + "/" + conf_name;
}

/**
 * Reads the whole file; false, with errno set, where that cannot be done. A FIFO counts as empty, and a file
 * that shrinks meanwhile ends early: neither may stop the daemon.
 */
bool read_text(const char *path, std::string *text)
{
	const hs_fd file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
	struct stat status;
	if (file.get() < 0 || fstat(file.get(), &status) < 0)
		return false;
	if (status.st_size > max_file_size) {
		errno = EFBIG;
		return false;
	}

	text->resize(static_cast<size_t>(status.st_size));
	size_t length = 0;
	while (length < text->size()) {
		const ssize_t n = TEMP_FAILURE_RETRY(read(file.get(), text->data() + length, text->size() - length));
		if (n < 0)
			return false;
		if (n == 0)
			break;
		length += static_cast<size_t>(n);
	}
	text->resize(length);
	return true;
}

/** Adds the value of the setting that `text` describes; a text that is no object is none. */
void add_setting(pw_properties *values, const char *text)
{
	if (text[0] != '{')
		return;

	const hs_properties_ptr setting{pw_properties_new_string(text)};
	pw_properties_set(values, pw_properties_get(setting.get(), "name"), pw_properties_get(setting.get(), "value"));
}

int write_settings(FILE *stream, void *data)
{
	const auto *values = static_cast<const pw_properties *>(data);

	std::fputs("{", stream);
	const int n = pw_properties_serialize_dict(stream, &values->dict, PW_PROPERTIES_FLAG_NL);
	std::fputs(n > 0 ? "\n}" : " }", stream);
	return 0;
}

} // namespace

bool hs_conf_load_config_list(const char *path, pw_properties *config_names)
{
	if (!path)
		return hs_conf_get_configs(HS_CONF_DIR, HS_CONF_OVERRIDE_DIR, config_names);
	const std::string directory(path, strnlen(path, config_path_size - 1));
	return hs_conf_get_configs(directory.c_str(), nullptr, config_names);
}

bool hs_conf_get_configs(const char *path, const char *override_path, pw_properties *config_names)
{
	HS_ASSERT(path);
	HS_ASSERT(config_names);

	struct stat status;
	if (stat(path, &status) < 0 || !S_ISDIR(status.st_mode)) {
		pw_log_info("No plugin configurations installed.");
		return true;
	}
	if (access(path, R_OK) < 0) {
		pw_log_warn("access %s failed: %m", path);
		return false;
	}

	std::vector<std::string> names;
	if (!list_confs(path, &names))
		return false;
	int index = 0;
	for (const std::string &name : names) {
		const std::string key = "config.name." + std::to_string(index++);
		pw_properties_set(config_names, key.c_str(), check_override(name.c_str(), path, override_path).c_str());
	}
	return true;
}

bool hs_conf_load_conf(const char *path, pw_properties *properties)
{
	std::string text;
	if (!read_text(path, &text)) {
		pw_log_warn("%p: Failed to load config '%s': %m", static_cast<void *>(properties), path);
		return false;
	}

	/* The parser may look one byte past a text that ends inside an object: at the terminator. */
	const int n_items = text.empty() ? 0 : pw_properties_update_string(properties, text.c_str(), text.size());
	pw_log_info("%p: Loaded config '%s' with %d items", static_cast<void *>(properties), path, n_items);
	return true;
}

void hs_settings_write(const pw_properties *settings)
{
	const char *path = settings ? pw_properties_get(settings, "path") : nullptr;
	if (!path)
		return;

	const hs_properties_ptr values{pw_properties_new("$schema", pw_properties_get(settings, "$schema"), nullptr)};
	const spa_dict_item *item;
	spa_dict_for_each(item, &settings->dict) {
		add_setting(values.get(), item->value);
	}
	hs_atomic_file_write(path, write_settings, values.get());
}

bool hs_settings_value_survives(const char *value)
{
	/* A member behind it shows whether the value swallows what follows. */
	const hs_properties_ptr values{pw_properties_new("value", value, "next", "kept", nullptr)};
	char *text = nullptr;
	size_t size = 0;
	hs_file_ptr stream{open_memstream(&text, &size)};
	if (!stream)
		return false;
	write_settings(stream.get(), values.get());
	stream.reset();
	const hs_malloc_ptr<char> owned{text};

	const hs_properties_ptr read_back{pw_properties_new(nullptr, nullptr)};
	pw_properties_update_string(read_back.get(), text, size);
	return spa_streq(pw_properties_get(read_back.get(), "value"), value) &&
	       spa_streq(pw_properties_get(read_back.get(), "next"), "kept");
}
