#include "log.hpp"

PW_LOG_TOPIC(hs_log_topic, "hear-sense");

void hs_log_init()
{
	PW_LOG_TOPIC_INIT(hs_log_topic);
}
