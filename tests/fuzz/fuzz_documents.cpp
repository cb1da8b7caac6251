// libFuzzer target for routing documents, the largest input the library takes from outside: an
// input is up to eight documents separated by a line holding "%%", each applied in order through
// the publisher connector's path on top of a known complete cell. Requests are routed around
// every document, one of them held across it, and the state report is written after each, so
// that a model the document left inconsistent shows at once rather than on some later input.
// Half of the mutations edit the documents' structure (documentMutator.h).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <string>
#include <string_view>

#include "fuzz/documentMutator.h"
#include "fuzz/fuzzHost.h"
#include "support/testData.h"

namespace {

constexpr int kMaxDocuments = 8;

// The cell every input starts from: two servers of one cluster, an application in two editions
// with a default work class of edition rules, and trace rule sets of which web1's is ours.
constexpr const char* kBaseline = "cell-editions.json";
constexpr int64_t kBaselineVersion = 1;
constexpr const char* kServerName = "ed_n1_web1";

// The requests routed around each document: every context root of the cells in tests/data, the
// affinity and rule shapes of the baseline, and one that no module serves.
struct Visit {
  const char* host;
  int port;
  const char* path;
  const char* sessionCookie;  // JSESSIONID, or null
  const char* header;         // a header set to "yes", or null
};
constexpr Visit kVisits[] = {
    {"www.example.com", 80, "/shop/cart", "0001abc:c1", nullptr},
    {"www.example.com", 80, "/shop/sticky/x", nullptr, "X-Beta"},
    {"www.example.com", 80, "/shop/old/y;jsessionid=0001abc:c2", nullptr, "X-Debug"},
    {"www.example.com", 443, "/cart/a", "0001abc:c3:c1", nullptr},
    {"admin.example.com", 9060, "/cart/admin/", nullptr, nullptr},
    {"www.example.com", 443, "/vault/v", nullptr, nullptr},
    {"www.example.com", 80, "/portal/p", nullptr, nullptr},
    {"www.example.com", 80, "/front/f", "0001abc:c9", nullptr},
    {"duo.example.com", 80, "/duo/d", "0001abc:d2", nullptr},
    {"www.example.com", 80, "/orphan/o", nullptr, nullptr},
    {"www.example.com", 80, "/nowhere", nullptr, nullptr},
};

struct Fixture {
  Fixture() : baseline(kyrtest::readTestData(kBaseline)) {
    kyrSetServerCustomProperty(handle.kyr(), "webserverName", kServerName);
    kyrfuzz::documentMutatorAddNames(baseline);
  }
  kyrfuzz::FuzzHandle handle;
  std::string baseline;
};

Fixture& fixture() {
  static Fixture f;  // one handle for the whole run; each input resets its model
  return f;
}

// The toy request of one visit, with a response that carries a partition table and a session
// cookie, so that response processing learns and writes something.
void prepare(EnvHttpContext& r, const Visit& v) {
  r.virtualHost = v.host;
  r.virtualPort = v.port;
  r.listeningPort = v.port;
  r.protocol = v.port == 443 ? "https" : "http";
  r.path = v.path;
  if (v.sessionCookie != nullptr) r.cookies["JSESSIONID"] = v.sessionCookie;
  if (v.header != nullptr) r.headers[v.header] = "yes";
  r.responseHeaders["$ZQPT"] = "p1:c1;p2:c2";
  r.responseHeaders["_ZQ_HAPRT_WLMVERSION"] = "7";
  r.responseHeaders["Set-Cookie"] = "JSESSIONID=0002def:c9; Path=/";
}

void serve(Kyr* kyr, const Visit& v) {
  EnvHttpContext r;
  prepare(r, v);
  kyrfuzz::InFlight f = kyrfuzz::routeRequest(kyr, &r);
  kyrfuzz::completeRequest(f);
}

void writeStateReport(Kyr* kyr) {
  char* report = kyrToJSONString(kyr);
  kyrfuzz::touch(report);
  free(report);
}

}  // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize,
                                          unsigned int seed) {
  fixture();  // the baseline's names
  return kyrfuzz::mutateDocuments(data, size, maxSize, seed);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fixture& f = fixture();
  Kyr* kyr = f.handle.kyr();
  f.handle.beginInput();
  f.handle.applyKnown(f.baseline, kBaselineVersion, kBaseline);

  std::string_view input(reinterpret_cast<const char*>(data), size);
  for (int i = 0; i < kMaxDocuments && !input.empty(); ++i) {
    size_t end = input.find(kyrfuzz::kDocumentSeparator);
    std::string document(input.substr(0, end));  // text up to a NUL is what is read
    input = end == std::string_view::npos ? std::string_view()
                                          : input.substr(end + kyrfuzz::kDocumentSeparator.size());

    // A request in flight while the document changes the model it was routed with.
    EnvHttpContext held;
    prepare(held, kVisits[static_cast<size_t>(i) % std::size(kVisits)]);
    kyrfuzz::InFlight inFlight = kyrfuzz::routeRequest(kyr, &held);
    f.handle.apply(document);
    kyrfuzz::completeRequest(inFlight);

    for (const Visit& v : kVisits) serve(kyr, v);
    writeStateReport(kyr);
  }
  f.handle.endInput();
  return 0;
}
