// The library's two diagnostic channels and its four levels. Lines are
// written with logMessage() of the logging library, which tests the level bit
// first: a disabled level builds no string and takes no lock.
#pragma once

#include <exception>
#include <string>

#include <foundation/log/diagnostic_logger.hpp>
#include <foundation/log/log_message.hpp>

namespace agent::spf::endpointregistry {

using DiagnosticLogger = foundation::log::basic_diagnostic_logger<char>;

// Level bits of the diagnostic channels.
enum LogLevel : unsigned {
  LifetimeTrace = 4,     // moving and destruction of endpoints
  CaughtException = 16,  // an exception caught, logged and passed on
  RefusedRequest = 256,  // a refused or empty-handed request, not a registry error
  Error = 512,           // an error; followed by an exception outside destructors
};

// "agent::spf::endpointregistry": errors, warnings, work-thread messages.
DiagnosticLogger& mainLogger();
// "detail::agent::spf::endpointregistry::endpointmoveanddestruction".
DiagnosticLogger& lifetimeLogger();
// Whether `level` is enabled on the lifetime channel, tested on the channel's
// shared mask without making its logger (every endpoint tests this level
// when it is destroyed).
bool lifetimeLevelEnabled(unsigned level);

// The name of the registry's name directory, "qzEndpointRegistry".
extern const std::string registryDirectoryName;

// Emits one record of `level` made of `pieces` written back to back (see
// foundation/log/log_message.hpp).
using foundation::log::logMessage;

// "Exception caught: " followed by Boost's verbose diagnostic text of the
// exception being handled. Call only inside a catch block.
std::string caughtExceptionText();

// Logs caughtExceptionText() at level 16 when that level is enabled. Call
// only inside a catch block.
void logCaughtException(DiagnosticLogger& logger);

// Switch the library's own output on (stdout, all levels of this library's
// and the shared-memory library's channels) and off. Not exported; nothing
// in the library calls them.
void enableDiagnostics();
void disableDiagnostics();

}  // namespace agent::spf::endpointregistry
