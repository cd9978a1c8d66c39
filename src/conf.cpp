#include "conf.hpp"

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <pipewire/properties.h>
#include <spa/utils/string.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "assert.hpp"
#include "atomic-file.hpp"
#include "log.hpp"
#include "owned.hpp"

namespace {

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

/** An open file, closed at the end. */
class descriptor
{
public:
	explicit descriptor(const char *path) : number{open(path, O_RDONLY | O_CLOEXEC)}
	{
	}

	~descriptor()
	{
		if (number >= 0)
			close(number);
	}

	descriptor(const descriptor &) = delete;
	descriptor &operator=(const descriptor &) = delete;

	int get() const
	{
		return number;
	}

private:
	int number;
};

/** Reads the whole file; false, with errno set, where that cannot be done. */
bool read_text(const char *path, std::string *text)
{
	const descriptor file{path};
	struct stat status;
	if (file.get() < 0 || fstat(file.get(), &status) < 0)
		return false;
	if (status.st_size < 1)
		return true;

	const auto size = static_cast<size_t>(status.st_size);
	void *map = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file.get(), 0);
	if (map == MAP_FAILED)
		return false;
	text->assign(static_cast<const char *>(map), size);
	munmap(map, size);
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
		pw_properties_set(config_names, key.c_str(),
				  check_override(name.c_str(), path, override_path).c_str());
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

	/* The parser may look one byte past a text that ends inside an object, hence a text with a terminator. */
	const int n_items = text.empty() ? 0 : pw_properties_update_string(properties, text.c_str(), text.size());
	pw_log_info("%p: Loaded config '%s' with %d items", static_cast<void *>(properties), path, n_items);
	return true;
}

void hs_settings_write(const pw_properties *settings)
{
	const char *path = settings ? pw_properties_get(settings, "path") : nullptr;
	if (!path)
		return;

	const hs_properties_ptr values{
		pw_properties_new("$schema", pw_properties_get(settings, "$schema"), nullptr)};
	const spa_dict_item *item;
	spa_dict_for_each(item, &settings->dict)
	{
		add_setting(values.get(), item->value);
	}
	hs_atomic_file_write(path, write_settings, values.get());
}
