#include "core/options.h"

constinit agent_options options{};
