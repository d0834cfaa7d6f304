// The host-fed source is public: hosts create the feed and push into it.
#pragma once

#include "tellora/host_fed_audio.h"
