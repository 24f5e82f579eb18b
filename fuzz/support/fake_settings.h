#pragma once

#include <map>
#include <string>

/// The settings that the agent finds in this run: config_get() and config_set() are replaced.
std::map<std::string, std::string>& fake_settings();
