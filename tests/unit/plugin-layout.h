/*
 * The layout of every record of <hear-sense/plugin.h> on 64-bit machines. What is built against the header
 * today must run with a daemon built next year, so a line here never changes.
 *
 * Whoever includes this says what CHECK_FIELD(record, field, offset, size) and CHECK_SIZE(record, size) do.
 */

CHECK_FIELD(hs_stream_info, info, 0, 272);
CHECK_FIELD(hs_stream_info, info.format, 0, 4);
CHECK_FIELD(hs_stream_info, info.flags, 4, 4);
CHECK_FIELD(hs_stream_info, info.rate, 8, 4);
CHECK_FIELD(hs_stream_info, info.channels, 12, 4);
CHECK_FIELD(hs_stream_info, info.position, 16, 256);
CHECK_FIELD(hs_stream_info, source_name, 272, 128);
CHECK_FIELD(hs_stream_info, connection_type, 400, 128);
CHECK_FIELD(hs_stream_info, acoustic_id, 528, 128);
CHECK_SIZE(hs_stream_info, 656);

CHECK_FIELD(hs_event_topic, name, 0, 8);
CHECK_FIELD(hs_event_topic, nice_name, 8, 8);
CHECK_FIELD(hs_event_topic, NAMESPACE_FIELD, 16, 8);
CHECK_SIZE(hs_event_topic, 24);

CHECK_FIELD(hs_event_info, name, 0, 8);
CHECK_FIELD(hs_event_info, nice_name, 8, 8);
CHECK_FIELD(hs_event_info, isDeprecated, 16, 1);
CHECK_FIELD(hs_event_info, isApplicationData, 17, 1);
CHECK_FIELD(hs_event_info, isPropertyState, 18, 1);
CHECK_FIELD(hs_event_info, topics, 24, 8);
CHECK_FIELD(hs_event_info, n_topics, 32, 8);
CHECK_FIELD(hs_event_info, is_public, 40, 1);
CHECK_FIELD(hs_event_info, data_types, 44, 4);
CHECK_SIZE(hs_event_info, 48);

CHECK_FIELD(hs_plugin_methods, version, 0, 4);
CHECK_FIELD(hs_plugin_methods, init, 8, 8);
CHECK_FIELD(hs_plugin_methods, deinit, 16, 8);
CHECK_FIELD(hs_plugin_methods, activate, 24, 8);
CHECK_FIELD(hs_plugin_methods, deactivate, 32, 8);
CHECK_FIELD(hs_plugin_methods, get_setting, 40, 8);
CHECK_FIELD(hs_plugin_methods, get_event, 48, 8);
CHECK_FIELD(hs_plugin_methods, get_settings, 56, 8);
CHECK_FIELD(hs_plugin_methods, set_settings, 64, 8);
CHECK_FIELD(hs_plugin_methods, process, 72, 8);
CHECK_SIZE(hs_plugin_methods, 80);

CHECK_FIELD(hs_plugin_interface, type, 0, 8);
CHECK_FIELD(hs_plugin_interface, version, 8, 4);
CHECK_FIELD(hs_plugin_interface, funcs, 16, 8);
CHECK_FIELD(hs_plugin_interface, data, 24, 8);
CHECK_FIELD(hs_plugin_interface, name, 32, 8);
CHECK_FIELD(hs_plugin_interface, interface_name, 40, 8);
CHECK_FIELD(hs_plugin_interface, schema, 48, 8);
CHECK_FIELD(hs_plugin_interface, settings_schema, 56, 8);
CHECK_FIELD(hs_plugin_interface, events, 64, 8);
CHECK_FIELD(hs_plugin_interface, n_events, 72, 8);
CHECK_FIELD(hs_plugin_interface, notify_event, 80, 8);
CHECK_FIELD(hs_plugin_interface, host_data, 88, 8);
CHECK_SIZE(hs_plugin_interface, 96);
