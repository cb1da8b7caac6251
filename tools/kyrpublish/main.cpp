// kyrpublish: the reference publisher. It serves a cell's routing data to the web servers
// that embed kyrlib over the REST protocol their connector groups speak, turns every edit of
// the cell files into a delta that reaches every waiting web server at once, takes deltas
// pushed by hand (apply) and reports what it serves and to whom (status).
#include <signal.h>

#include <CLI/CLI.hpp>
#include <iostream>
#include <optional>
#include <set>
#include <string>

#include "cellFiles.h"
#include "cellWatcher.h"
#include "client.h"
#include "httpServer.h"
#include "log.h"
#include "publisher.h"

namespace {

using namespace kyrpublish;

struct Options {
  std::string listen;
  std::string cell;
  std::string uri = "/brisvane";
  size_t keep = 100;
  // apply and status
  std::string url;
  std::string delta;
  std::string group;
  bool json = false;
};

int fail(const std::string& message) {
  std::cerr << "kyrpublish: " << message << "\n";
  return 2;
}

// Serves until SIGINT or SIGTERM. The signals are blocked before any thread starts, so every
// thread inherits the mask and only the main thread's sigwait sees them.
int serve(const Options& o) {
  size_t colon = o.listen.rfind(':');
  std::string host = o.listen.substr(0, colon);
  std::string portText = colon == std::string::npos ? "" : o.listen.substr(colon + 1);
  bool digits = !portText.empty() && portText.size() <= 5 &&
                portText.find_first_not_of("0123456789") == std::string::npos;
  if (!digits || std::stoul(portText) > 65535) {
    return fail("--listen wants HOST:PORT, not '" + o.listen + "'");
  }
  if (o.uri.empty() || o.uri[0] != '/' || o.uri == "/status" || o.uri == "/apply") {
    return fail("--uri must be a path other than /status and /apply, not '" + o.uri + "'");
  }
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  std::string error;
  std::optional<CellFiles> files = CellFiles::open(o.cell, error);
  if (!files) return fail(error);
  Publisher publisher(*files, o.keep);
  if (!publisher.load(error)) return fail(error);
  // Watched from right after the load, so no edit falls between the two.
  CellWatcher watcher(files->directory(),
                      [&](const std::set<std::string>& names) { publisher.reload(names); });
  if (!watcher.start(error)) return fail(error);
  HttpServer server(publisher, o.uri);
  if (!server.start(host, static_cast<uint16_t>(std::stoul(portText)), error)) return fail(error);
  std::string serving = files->oneFile() ? "every group from " + o.cell : "the groups of " + o.cell;
  logLine("listening on http://%s:%u%s, serving %s", host.c_str(), server.port(), o.uri.c_str(),
          serving.c_str());
  int signal = 0;
  sigwait(&stopSignals, &signal);
  logLine("stopping on %s", signal == SIGINT ? "SIGINT" : "SIGTERM");
  watcher.stop();
  server.stop();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  CLI::App app{"kyrpublish: serve a cell's routing data to the web servers that embed kyrlib"};
  app.require_subcommand(0, 1);
  app.add_option("--listen", o.listen, "IPv4 HOST:PORT to listen on (port 0: any free port)");
  app.add_option("--cell", o.cell,
                 "complete routing document served to every group, or a directory with one "
                 "<group>.json per connector group");
  app.add_option("--uri", o.uri, "REST path the web servers ask (default /brisvane)");
  app.add_option("--keep", o.keep, "deltas kept for web servers that missed edits (default 100)")
      ->check(CLI::Range(1, 100000));

  CLI::App* applyCmd = app.add_subcommand(
      "apply",
      "push a hand-written delta to a running publisher; it is served as the next version");
  applyCmd->add_option("--delta", o.delta, "the delta (JSON)")->required();
  applyCmd->add_option("--group", o.group, "the group it is for (a directory of groups needs it)");
  applyCmd->add_option("url", o.url, "the publisher, http://HOST:PORT")->required();
  CLI::App* statusCmd =
      app.add_subcommand("status", "print a running publisher's groups, web servers and reports");
  statusCmd->add_flag("--json", o.json, "print the JSON as /status gives it");
  statusCmd->add_option("url", o.url, "the publisher, http://HOST:PORT")->required();

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    return fail(e.what());
  }
  if (applyCmd->parsed()) return applyCommand(o.url, o.delta, o.group);
  if (statusCmd->parsed()) return statusCommand(o.url, o.json);
  if (o.listen.empty() || o.cell.empty())
    return fail("serving needs --listen HOST:PORT and --cell PATH");
  return serve(o);
}
