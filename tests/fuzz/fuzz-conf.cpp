/* A plug-in's configuration file, and what the daemon takes from it. */
#include "fuzz.hpp"

#include <spa/param/audio/raw.h>
#include <spa/utils/string.h>

#include "conf.hpp"
#include "pcm-format.hpp"
#include "plugin.hpp"
#include "pod.hpp"
#include "pw-source.hpp"
#include "source-settings.hpp"
#include "utf8.hpp"

namespace {

hs_properties_ptr load(const char *path)
{
	hs_properties_ptr table{pw_properties_new(nullptr, nullptr)};
	HS_REQUIRE(hs_conf_load_conf(path, table.get()));
	return table;
}

void require_same(const pw_properties *a, const pw_properties *b)
{
	HS_REQUIRE(a->dict.n_items == b->dict.n_items);
	const spa_dict_item *item;
	spa_dict_for_each(item, &a->dict)
		HS_REQUIRE(spa_streq(item->value, pw_properties_get(b, item->key)));
}

/** Whatever the texts, the format is one that can be offered and read back. */
void check_format(const pw_properties *texts)
{
	const hs_properties_ptr props{pw_properties_copy(texts)};
	spa_audio_info_raw info;
	hs_pcm_format_from_props(props.get(), &info);
	HS_REQUIRE(info.flags == 0);

	hs_pod_buffer buffer;
	const spa_pod *offer = hs_pcm_build_format(info, &buffer);
	HS_REQUIRE(offer);
	spa_audio_info_raw read_back{};
	const bool is_readable = hs_pcm_parse_format(offer, &read_back);
	HS_REQUIRE(is_readable == (info.channels <= SPA_AUDIO_MAX_CHANNELS));
	if (!is_readable)
		return;
	HS_REQUIRE(read_back.format == info.format && read_back.rate == info.rate &&
		   read_back.channels == info.channels);
	for (uint32_t i = 0; i < info.channels; i++)
		HS_REQUIRE(read_back.position[i] == info.position[i]);
}

void check_nodes(const pw_properties *table)
{
	const hs_properties_ptr any = hs_pw_source_find_config(nullptr, table);
	if (!any)
		return;
	const char *name = pw_properties_get(any.get(), "node.name");
	HS_REQUIRE(name);
	const hs_properties_ptr named = hs_pw_source_find_config(name, table);
	HS_REQUIRE(named);
	require_same(any.get(), named.get());
	check_format(any.get());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	static hs_fuzz_file file;
	file.fill(data, size);
	const hs_properties_ptr table = load(file.path());
	const hs_properties_ptr again = load(file.path());
	require_same(table.get(), again.get());

	hs_plugin plugin{};
	plugin.props = table.get();
	const hs_properties_ptr info = hs_plugin_get_info(&plugin);
	check_format(info.get());
	check_nodes(table.get());

	/* Defaults never replace what is stored, and every text is one for the bus. */
	const hs_properties_ptr defaults = hs_setting_read_stored(info.get(), nullptr);
	const hs_properties_ptr stored = hs_setting_read_stored(info.get(), file.path());
	const spa_dict_item *item;
	spa_dict_for_each(item, &table->dict)
		HS_REQUIRE(hs_utf8_repair(item->value) == pw_properties_get(stored.get(), item->key));
	spa_dict_for_each(item, &defaults->dict)
		HS_REQUIRE(pw_properties_get(stored.get(), item->key));
	return 0;
}
