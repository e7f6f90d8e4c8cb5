// Marks what the endpointregistry library exports.
#pragma once

#if defined(ENDPOINTREGISTRY_BUILDING)
#define ENDPOINTREGISTRY_EXPORT __attribute__((visibility("default")))
#else
#define ENDPOINTREGISTRY_EXPORT
#endif
