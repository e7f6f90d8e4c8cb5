#include "diagnostics/diagnostics.hpp"

#include <boost/exception/diagnostic_information.hpp>
#include <foundation/log/admin.hpp>

namespace agent::spf::endpointregistry {

const std::string registryDirectoryName = "qzEndpointRegistry";

DiagnosticLogger& mainLogger() {
  static DiagnosticLogger logger("agent::spf::endpointregistry");
  return logger;
}

namespace {
const char* const lifetimeChannel = "detail::agent::spf::endpointregistry::endpointmoveanddestruction";
}  // namespace

DiagnosticLogger& lifetimeLogger() {
  static DiagnosticLogger logger(lifetimeChannel);
  return logger;
}

bool lifetimeLevelEnabled(unsigned level) {
  static const foundation::log::channel_levels levels(lifetimeChannel);
  return levels.isEnabled(level);
}

std::string caughtExceptionText() {
  return "Exception caught: " + boost::current_exception_diagnostic_information(true);
}

void logCaughtException(DiagnosticLogger& logger) {
  if (!logger.isEnabled(CaughtException)) return;
  logMessage(logger, CaughtException, caughtExceptionText());
}

void enableDiagnostics() {
  auto admin = foundation::log::local::admin::get();
  admin->setSink("stdout");
  admin->setChannelFilter("agent::spf::endpointregistry=all;agent::spf::sharedmemory=all");
}

void disableDiagnostics() {
  auto admin = foundation::log::local::admin::get();
  admin->setChannelFilter("");
}

}  // namespace agent::spf::endpointregistry
