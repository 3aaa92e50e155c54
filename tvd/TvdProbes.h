// The daemon's static tracing points (provider "tvd"), compiled in as USDT
// probes with is-enabled semaphores. TVD_PROBE(NAME, args...) fires a probe;
// TVD_PROBE_ENABLED(NAME) tells whether a tracer is attached, so that costly
// arguments (message descriptions) are only made when someone listens.
#pragma once

#include "tvd/tvd_probes.h"

#define TVD_PROBE(name, ...) TVD_##name(__VA_ARGS__)
#define TVD_PROBE_ENABLED(name) TVD_##name##_ENABLED()
