/*
 * The plug-in interface is an ABI: sizes, offsets and signatures do not move.
 */
#include <hear-sense/plugin.h>

#include <cstddef>
#include <type_traits>

#include <gtest/gtest.h>

#include <spa/utils/hook.h>

#define CHECK_FIELD(type, field, at, bytes)                                                                  \
	EXPECT_EQ(offsetof(type, field), size_t{at}) << #type "." #field;                                    \
	EXPECT_EQ(sizeof(static_cast<type *>(nullptr)->field), size_t{bytes}) << #type "." #field
#define CHECK_SIZE(type, bytes) EXPECT_EQ(sizeof(type), size_t{bytes}) << #type
#define NAMESPACE_FIELD namespace_

static_assert(std::is_standard_layout_v<hs_stream_info> && std::is_trivially_copyable_v<hs_stream_info>);
static_assert(std::is_standard_layout_v<hs_event_topic> && std::is_standard_layout_v<hs_event_info>);
static_assert(std::is_standard_layout_v<hs_plugin_methods> && std::is_standard_layout_v<hs_plugin_interface>);

TEST(PluginAbi, RecordsKeepTheirLayout)
{
#include "plugin-layout.h"
}

TEST(PluginAbi, InterfaceBeginsLikeEverySpaInterface)
{
	CHECK_FIELD(hs_plugin_interface, type, offsetof(spa_interface, type), sizeof(spa_interface::type));
	CHECK_FIELD(hs_plugin_interface, version, offsetof(spa_interface, version),
		    sizeof(spa_interface::version));
	CHECK_FIELD(hs_plugin_interface, funcs, offsetof(spa_interface, cb.funcs),
		    sizeof(spa_callbacks::funcs));
	CHECK_FIELD(hs_plugin_interface, data, offsetof(spa_interface, cb.data), sizeof(spa_callbacks::data));
}

TEST(PluginAbi, FunctionsKeepTheirSignatures)
{
	using methods = hs_plugin_methods;
	using get = int (*)(void *, uint32_t, spa_pod **, spa_pod_builder *);
	EXPECT_TRUE((std::is_same_v<decltype(methods::init),
				    int (*)(void *, const hs_stream_info *, const spa_dict *)>));
	EXPECT_TRUE((std::is_same_v<decltype(methods::deinit), void (*)(void *)>));
	EXPECT_TRUE((std::is_same_v<decltype(methods::activate), int (*)(void *)>));
	EXPECT_TRUE((std::is_same_v<decltype(methods::deactivate), void (*)(void *)>));
	EXPECT_TRUE((std::is_same_v<decltype(methods::get_setting), get>));
	EXPECT_TRUE((std::is_same_v<decltype(methods::get_event), get>));
	EXPECT_TRUE((std::is_same_v<decltype(methods::get_settings), int (*)(void *, spa_pod_builder *)>));
	EXPECT_TRUE((std::is_same_v<decltype(methods::set_settings), int (*)(void *, const spa_pod *)>));
	EXPECT_TRUE((std::is_same_v<decltype(methods::process), void (*)(void *, spa_buffer *)>));
	EXPECT_TRUE((std::is_same_v<decltype(hs_plugin_interface::notify_event),
				    void (*)(hs_plugin_interface *, uint32_t)>));
}

TEST(PluginAbi, NamesAndVersionsStay)
{
	EXPECT_EQ(HS_PLUGIN_INTERFACE_VERSION, 3);
	EXPECT_EQ(HS_PLUGIN_INTERFACE_VERSION_MIN, 2);
	EXPECT_STREQ(HS_PLUGIN_INTERFACE_TYPE_PREFIX, "Spa:Pointer:Interface:HearSense:");
	EXPECT_STREQ(HS_PLUGIN_FACTORY_PREFIX, "hear-sense.");
	EXPECT_EQ(HS_EVENT_DATA_STATS, 1U);
	EXPECT_EQ(HS_EVENT_DATA_EVENT, 2U);
}
