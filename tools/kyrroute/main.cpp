// kyrroute: a command-line host of kyrlib. It loads routing documents as a publisher would
// deliver them and shows what the library decides for requests (route), what it knows (state)
// and what it found wrong in the documents (validate).
#include <CLI/CLI.hpp>
#include <fstream>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "library.h"
#include "report.h"
#include "request.h"

namespace {

using kyrroute::Library;

struct Options {
  std::string catalogue = KYR_TRACE_CATALOGUE;
  std::string serverName = "cell_node_kyrroute";
  bool json = false;
  std::string doc;
  std::vector<std::string> deltas;
  // route
  std::string method, url;
  std::vector<std::string> headers, response;
  std::string requestFile;
  int repeat = 1;
};

int fail(const std::string& message) {
  std::cerr << "kyrroute: " << message << "\n";
  return 2;
}

// Loads the complete document and then the deltas; false after reporting the first failure.
bool loadAll(Library& library, const Options& o) {
  std::string error;
  if (!library.load(o.doc, error)) return fail(error), false;
  for (const std::string& delta : o.deltas) {
    if (!library.load(delta, error)) return fail(error), false;
  }
  return true;
}

std::optional<std::vector<kyrroute::Request>> readRequests(const Options& o) {
  std::vector<kyrroute::Request> requests;
  std::string error;
  if (!o.method.empty()) {
    auto r = kyrroute::makeRequest(o.method, o.url, o.headers, error);
    if (!r) return fail(error), std::nullopt;
    requests.push_back(*r);
  }
  if (!o.requestFile.empty()) {
    std::ifstream in(o.requestFile);
    if (!in) return fail("cannot read " + o.requestFile), std::nullopt;
    std::string line;
    for (int n = 1; std::getline(in, line); ++n) {
      if (line.find_first_not_of(" \t\r") == std::string::npos || line[0] == '#') continue;
      auto r = kyrroute::parseRequestLine(line, error);
      if (!r) return fail(o.requestFile + ":" + std::to_string(n) + ": " + error), std::nullopt;
      requests.push_back(*r);
    }
  }
  if (requests.empty()) return fail("no request: give METHOD URL or --requests FILE"), std::nullopt;
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

int route(Library& library, const Options& o) {
  auto requests = readRequests(o);
  auto response = responseHeaders(o);
  if (!requests || !response || !loadAll(library, o)) return 2;
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

void addDocumentOptions(CLI::App* command, Options& o) {
  command->add_option("--doc", o.doc, "complete routing document (JSON) to load first")->required();
  command->add_option("--delta", o.deltas, "delta document applied after it; repeatable")
      ->allow_extra_args(false);
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  CLI::App app{"kyrroute: load routing data into kyrlib and see where requests go"};
  app.require_subcommand(1);
  app.add_option("--catalogue", o.catalogue, "trace catalogue the library reads");
  app.add_option("--server-name", o.serverName,
                 "this web server's name in the cell, cell_node_server");
  app.add_flag("--json", o.json, "print JSON instead of text");

  CLI::App* routeCmd = app.add_subcommand("route", "route requests and show each decision");
  addDocumentOptions(routeCmd, o);
  routeCmd->add_option("method", o.method, "HTTP method, e.g. GET");
  routeCmd->add_option("url", o.url, "request URL, e.g. https://shop.example.com/shop/cart");
  routeCmd->add_option("-H,--header", o.headers, "request header 'Name: value'; repeatable")
      ->allow_extra_args(false);
  routeCmd->add_option("--requests", o.requestFile,
                       "file of requests, one per line: METHOD URL [| Name: value]...");
  routeCmd->add_option("--repeat", o.repeat, "route the requests N times and show the spread")
      ->check(CLI::PositiveNumber);
  routeCmd
      ->add_option("--respond", o.response,
                   "header of the simulated response, e.g. 'Set-Cookie: JSESSIONID=0001:c1'")
      ->allow_extra_args(false);

  CLI::App* stateCmd = app.add_subcommand("state", "print the library's state report (JSON)");
  addDocumentOptions(stateCmd, o);
  CLI::App* validateCmd =
      app.add_subcommand("validate", "list every problem the reader finds in the documents");
  addDocumentOptions(validateCmd, o);

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

  Library library(o.catalogue, o.serverName);
  if (!library.ok()) return fail("the library could not start (catalogue " + o.catalogue + ")");
  if (routeCmd->parsed()) return route(library, o);
  if (validateCmd->parsed()) return validate(library, o);
  if (!loadAll(library, o)) return 2;
  std::cout << library.stateReport() << "\n";
  return 0;
}
