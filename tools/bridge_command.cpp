// endpointregistry bridge --etcd URL[,URL...] --group TAG [--group TAG]...
//                         [--prefix P] [--host NAME] [--trustee T]... [--ttl S]
//                         [--cacert F] [--cert F --key F] [--user U --password-file F]
//
// Mirrors this host's registry through an etcd cluster (bridge/src/bridge.hpp)
// until SIGINT, SIGTERM or SIGHUP, then revokes its lease so that the other
// hosts drop this host's endpoints at once. Says what it does on stderr
// (the bridge's diagnostic channel). Built only with libcurl.
#include <unistd.h>

#include <chrono>
#include <climits>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <foundation/log/admin.hpp>

#include "bridge.hpp"
#include "command.hpp"
#include "option_checks.hpp"
#include "stop_signals.hpp"
#include "trustee_selection.hpp"

namespace agent::spf::endpointregistry::tool {
namespace {

struct BridgeCommandOptions {
  std::vector<std::string> urls;
  std::string prefix = "/endpointregistry/";
  std::string host;
  std::vector<std::string> tags;
  std::vector<std::string> trustees;
  unsigned ttl = 10;
  std::string caFile;
  std::string certFile;
  std::string keyFile;
  std::string user;
  std::string passwordFile;
};

std::string hostName() {
  char name[HOST_NAME_MAX + 1] = {};
  if (gethostname(name, sizeof name - 1) != 0)
    throw std::runtime_error("bridge: cannot read the host name; give --host");
  return name;
}

// The first line of the file, without its line end.
std::string passwordFrom(const std::string& path) {
  std::ifstream file(path);
  std::string password;
  if (!file || !std::getline(file, password)) {
    throw std::runtime_error("bridge: cannot read the password from " + path);
  }
  if (!password.empty() && password.back() == '\r') password.pop_back();
  return password;
}

int runBridgeCommand(const BridgeCommandOptions& options) {
  blockStopSignals();
  bridge::BridgeOptions bridgeOptions;
  bridgeOptions.etcd.urls = options.urls;
  bridgeOptions.etcd.caFile = options.caFile;
  bridgeOptions.etcd.certFile = options.certFile;
  bridgeOptions.etcd.keyFile = options.keyFile;
  bridgeOptions.etcd.user = options.user;
  if (!options.user.empty()) bridgeOptions.etcd.password = passwordFrom(options.passwordFile);
  bridgeOptions.prefix = options.prefix;
  bridgeOptions.host = options.host.empty() ? hostName() : options.host;
  bridgeOptions.tags = options.tags;
  if (!options.trustees.empty())
    bridgeOptions.trustees = std::set<std::string>(options.trustees.begin(), options.trustees.end());
  bridgeOptions.ttl = options.ttl;
  // A call to one member may take a quarter of the lease, so that a member
  // that does not answer leaves time for the others before the lease ends.
  bridgeOptions.etcd.callTimeout = std::min<std::chrono::milliseconds>(std::chrono::milliseconds(3000),
                                                                       std::chrono::milliseconds(options.ttl * 250));
  for (const std::string& trustee : bridgeOptions.trustees) checkTrustee(trustee);

  // The bridge says what it does unless the host's own filter is wider.
  auto admin = foundation::log::local::admin::get();
  admin->setSink("stderr");
  admin->setChannelFilter(std::string("agent::spf::endpointregistry::bridge=all") +
                          (verboseRequested ? std::string(";") + verboseChannelFilter : std::string()));
  admin->setLevelNames("agent::spf::endpointregistry::bridge", {{32, "activity"}, {256, "trouble"}, {512, "error"}});
  const int stop = stopSignalDescriptor();
  const int status = bridge::runBridge(bridgeOptions, stop);
  close(stop);
  return status;
}

}  // namespace

void addBridgeCommand(CLI::App& app, CommandRun& run) {
  auto options = std::make_shared<BridgeCommandOptions>();
  CLI::App* command = app.add_subcommand(
      "bridge", "Mirror this host's endpoints through etcd, and the other hosts' here, until interrupted");
  command->add_option("--etcd", options->urls, "The etcd cluster's client URLs, comma-separated")
      ->type_name("URL[,URL...]")
      ->delimiter(',')
      ->required();
  command
      ->add_option("--group", options->tags,
                   "A group tag to bridge (repeatable; at least one: tags are stored only as hashes, so a "
                   "bridge can only carry tags it is given)")
      ->type_name("TAG")
      ->required();
  command->add_option("--prefix", options->prefix, "Key prefix in etcd")->capture_default_str();
  command->add_option("--host", options->host, "This host's name in the keys (default: the host name)");
  command
      ->add_option("--trustee", options->trustees,
                   "A group whose directory is exported and under which imports are published too (repeatable; "
                   "default: your own scope)")
      ->type_name("GROUP");
  command->add_option("--ttl", options->ttl, "The lease's time to live in seconds")
      ->capture_default_str()
      ->check(wholeNumber(2, 3600, "seconds"));
  command->add_option("--cacert", options->caFile, "TLS: the CA certificate of the members")->check(CLI::ExistingFile);
  command->add_option("--cert", options->certFile, "TLS: this client's certificate")->check(CLI::ExistingFile);
  command->add_option("--key", options->keyFile, "TLS: this client's private key")->check(CLI::ExistingFile);
  auto* user = command->add_option("--user", options->user, "Authenticate as this etcd user");
  auto* password =
      command->add_option("--password-file", options->passwordFile, "The file whose first line is the user's password")
          ->check(CLI::ExistingFile);
  user->needs(password);
  password->needs(user);
  command->callback([options, &run] { run = [options] { return runBridgeCommand(*options); }; });
}

}  // namespace agent::spf::endpointregistry::tool
