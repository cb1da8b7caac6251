// kyrroute: a command-line host of kyrlib. It loads routing documents from files as a publisher
// would deliver them, or learns them from publishers, and shows what the library decides for
// requests (route), what it knows (state), what it found wrong in the documents (validate) and
// every document a publisher's stream brings (watch).
#include <CLI/CLI.hpp>
#include <fstream>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "library.h"
#include "report.h"
#include "request.h"
#include "watch.h"

namespace {

using kyrroute::Library;

struct Options {
  std::string catalogue = KYR_TRACE_CATALOGUE;
  std::string serverName = "cell_node_kyrroute";
  bool json = false;
  std::string doc;
  std::vector<std::string> deltas;
  kyrroute::Publishers publishers;
  int timeoutSecs = 10;
  int count = 0;  // watch
  // route
  std::string method, url;
  std::vector<std::string> headers, response;
  std::string requestFile;  // "-": standard input, routed as it arrives
  std::vector<std::string> serviceTimes;
  int repeat = 1;
};

int fail(const std::string& message) {
  std::cerr << "kyrroute: " << message << "\n";
  return 2;
}

// Loads the complete document and then the deltas, or learns the routing data from the
// publishers; false after reporting the first failure.
bool loadAll(Library& library, const Options& o) {
  std::string error;
  if (!o.publishers.urls.empty()) {
    if (!library.learnFrom(o.publishers, o.timeoutSecs, error)) return fail(error), false;
    return true;
  }
  if (!library.load(o.doc, error)) return fail(error), false;
  for (const std::string& delta : o.deltas) {
    if (!library.load(delta, error)) return fail(error), false;
  }
  return true;
}

bool fromStdin(const Options& o) { return o.requestFile == "-"; }

// The requests given in advance, on the command line and in the request file; `times` ends as
// the service times in effect after them.
std::optional<std::vector<kyrroute::Request>> readRequests(const Options& o,
                                                           kyrroute::ServiceTimes& times) {
  std::vector<kyrroute::Request> requests;
  std::string error;
  for (const std::string& t : o.serviceTimes) {
    if (!kyrroute::setServiceTime(times, t, error)) return fail(error), std::nullopt;
  }
  if (!o.method.empty()) {
    auto r = kyrroute::makeRequest(o.method, o.url, o.headers, error);
    if (!r) return fail(error), std::nullopt;
    r->serviceTimes = times;
    requests.push_back(*r);
  }
  if (!o.requestFile.empty() && !fromStdin(o)) {
    std::ifstream in(o.requestFile);
    if (!in) return fail("cannot read " + o.requestFile), std::nullopt;
    std::string line;
    for (int n = 1; std::getline(in, line); ++n) {
      if (!kyrroute::readRequestLine(line, times, requests, error)) {
        return fail(o.requestFile + ":" + std::to_string(n) + ": " + error), std::nullopt;
      }
    }
  }
  if (requests.empty() && !fromStdin(o)) {
    return fail("no request: give METHOD URL or --requests FILE"), std::nullopt;
  }
  return requests;
}

std::optional<kyrroute::HeaderList> responseHeaders(const Options& o) {
  kyrroute::HeaderList headers;
  for (const std::string& h : o.response) {
    size_t colon = h.find(':');
    if (colon == std::string::npos || colon == 0) {
      return fail("response header '" + h + "' is not 'Name: value'"), std::nullopt;
    }
    size_t value = h.find_first_not_of(' ', colon + 1);
    headers.emplace_back(h.substr(0, colon), value == std::string::npos ? "" : h.substr(value));
  }
  return headers;
}

// Requests from standard input are routed as their lines arrive and each decision is printed
// at once, so a script can feed a running web server and watch what follows, such as what its
// publisher hears. A bad line ends the run as it would in a file.
int routeStream(Library& library, const Options& o, const std::vector<kyrroute::Request>& first,
                kyrroute::ServiceTimes times, const kyrroute::HeaderList& response) {
  for (const auto& r : first)
    kyrroute::printDecision(std::cout, library.route(r, response), o.json);
  std::cout.flush();
  std::string line, error;
  for (int n = 1; std::getline(std::cin, line); ++n) {
    std::vector<kyrroute::Request> requests;
    if (!kyrroute::readRequestLine(line, times, requests, error)) {
      return fail("standard input:" + std::to_string(n) + ": " + error);
    }
    for (const auto& r : requests) {
      kyrroute::printDecision(std::cout, library.route(r, response), o.json);
    }
    std::cout.flush();
  }
  return 0;
}

int route(Library& library, const Options& o) {
  kyrroute::ServiceTimes times;
  auto requests = readRequests(o, times);
  auto response = responseHeaders(o);
  if (!requests || !response || !loadAll(library, o)) return 2;
  if (fromStdin(o)) return routeStream(library, o, *requests, times, *response);
  std::vector<kyrroute::Decision> decisions;
  for (int i = 0; i < o.repeat; ++i) {
    for (const auto& r : *requests) decisions.push_back(library.route(r, *response));
  }
  if (o.repeat > 1) {
    kyrroute::printDistribution(std::cout, decisions, o.json);
  } else {
    kyrroute::printDecisions(std::cout, decisions, o.json);
  }
  return 0;
}

int validate(Library& library, const Options& o) {
  std::string error;
  bool readable = true;
  for (const std::string& file : [&] {
         std::vector<std::string> all{o.doc};
         all.insert(all.end(), o.deltas.begin(), o.deltas.end());
         return all;
       }()) {
    if (!library.load(file, error)) {
      std::cerr << "kyrroute: " << error << "\n";
      readable = false;
    }
  }
  kyrroute::printDiagnostics(std::cout, library.diagnostics(), o.json);
  return readable && library.diagnostics().empty() ? 0 : 1;
}

std::string publisherURL(const std::string& url) {
  if (url.rfind("http://", 0) == 0 || url.rfind("https://", 0) == 0) return "";
  return "publisher '" + url + "' is not an http://HOST:PORT URL";
}

// --publisher and the options of the connector group it makes.
CLI::Option* addPublisherOptions(CLI::App* command, Options& o) {
  CLI::Option* publisher =
      command
          ->add_option("--publisher", o.publishers.urls,
                       "publisher to learn the routing data from, http://HOST:PORT; repeatable, "
                       "tried in order")
          ->allow_extra_args(false)
          ->check(publisherURL);
  command
      ->add_option("--group", o.publishers.group,
                   "name of the connector group, as the publisher sees it (default kyrroute)")
      ->needs(publisher);
  command
      ->add_option("--group-property", o.publishers.properties,
                   "setting of the connector group, NAME=VALUE (waitTime, retryInterval, uri, "
                   "maxRetries, maxWaitOffset, enableRoutingToAdminConsole); repeatable")
      ->allow_extra_args(false)
      ->needs(publisher);
  command
      ->add_option("--timeout", o.timeoutSecs,
                   "seconds to wait for the first complete document (default 10; 0: no limit)")
      ->check(CLI::NonNegativeNumber)
      ->needs(publisher);
  return publisher;
}

// The routing data comes from files (--doc, --delta) or from publishers (--publisher).
void addSourceOptions(CLI::App* command, Options& o, bool publishers) {
  CLI::Option* doc =
      command->add_option("--doc", o.doc, "complete routing document (JSON) to load first");
  command->add_option("--delta", o.deltas, "delta document applied after it; repeatable")
      ->allow_extra_args(false)
      ->needs(doc);
  if (!publishers) {
    doc->required();
    return;
  }
  doc->excludes(addPublisherOptions(command, o));
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  CLI::App app{"kyrroute: load routing data into kyrlib and see where requests go"};
  app.require_subcommand(1);
  // The common options may also follow the subcommand: "watch --publisher URL --json".
  app.fallthrough();
  app.add_option("--catalogue", o.catalogue, "trace catalogue the library reads");
  app.add_option("--server-name", o.serverName,
                 "this web server's name in the cell, cell_node_server");
  app.add_flag("--json", o.json, "print JSON instead of text");

  CLI::App* routeCmd = app.add_subcommand("route", "route requests and show each decision");
  addSourceOptions(routeCmd, o, true);
  routeCmd->add_option("method", o.method, "HTTP method, e.g. GET");
  routeCmd->add_option("url", o.url, "request URL, e.g. https://shop.example.com/shop/cart");
  routeCmd->add_option("-H,--header", o.headers, "request header 'Name: value'; repeatable")
      ->allow_extra_args(false);
  routeCmd->add_option(
      "--requests", o.requestFile,
      "file of requests, one per line: METHOD URL [| Name: value]...; a line 'service-time "
      "[SERVER=]MS' sets the service time for the requests after it; '-' reads standard input "
      "and routes each line as it arrives");
  routeCmd->add_option("--repeat", o.repeat, "route the requests N times and show the spread")
      ->check(CLI::PositiveNumber);
  routeCmd
      ->add_option("--service-time", o.serviceTimes,
                   "[SERVER=]MS: milliseconds the simulated server takes to answer, for every "
                   "server or for SERVER alone (its full name or last part, e.g. s1); the "
                   "library measures it for its health policies; repeatable (default 0)")
      ->allow_extra_args(false);
  routeCmd
      ->add_option("--respond", o.response,
                   "header of the simulated response, e.g. 'Set-Cookie: JSESSIONID=0001:c1'")
      ->allow_extra_args(false);

  CLI::App* stateCmd = app.add_subcommand("state", "print the library's state report (JSON)");
  addSourceOptions(stateCmd, o, true);
  CLI::App* validateCmd =
      app.add_subcommand("validate", "list every problem the reader finds in the documents");
  addSourceOptions(validateCmd, o, false);
  CLI::App* watchCmd = app.add_subcommand(
      "watch", "print every document the publishers' stream brings, until SIGINT or SIGTERM");
  addPublisherOptions(watchCmd, o)->required();
  watchCmd->add_option("--count", o.count, "end after N documents (default 0: until interrupted)")
      ->check(CLI::NonNegativeNumber);

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    return fail(e.what());
  }
  if (routeCmd->parsed() && !o.method.empty() && o.url.empty()) {
    return fail("a request needs both METHOD and URL");
  }
  if (routeCmd->parsed() && fromStdin(o) && o.repeat > 1) {
    return fail("--repeat needs the requests in advance, not from standard input");
  }
  if ((routeCmd->parsed() || stateCmd->parsed()) && o.doc.empty() && o.publishers.urls.empty()) {
    return fail("no routing data: give --doc FILE or --publisher URL");
  }

  if (watchCmd->parsed()) {
    kyrroute::blockStopSignals();
    kyrroute::WatchOptions watchOptions{o.json, o.count, o.timeoutSecs};
    Library library(o.catalogue, o.serverName,
                    [&](EnvCallBacks& env) { kyrroute::watchCallbacks(env, watchOptions); });
    if (!library.ok()) return fail("the library could not start (catalogue " + o.catalogue + ")");
    return kyrroute::watch(library, o.publishers, watchOptions);
  }
  Library library(o.catalogue, o.serverName);
  if (!library.ok()) return fail("the library could not start (catalogue " + o.catalogue + ")");
  if (routeCmd->parsed()) return route(library, o);
  if (validateCmd->parsed()) return validate(library, o);
  if (!loadAll(library, o)) return 2;
  std::cout << library.stateReport() << "\n";
  return 0;
}
