// One request to a publisher and what to print of the answer.
#include "client.h"

#include <jansson.h>

#include <cctype>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>

#include "connector/kyrHttpClient.h"
#include "statusTable.h"

namespace kyrpublish {
namespace {

constexpr int kTimeoutSecs = 10;

struct Answer {
  int status;
  std::string body;
};

std::optional<Answer> exchange(const std::string& url, const char* method,
                               const std::string& target, const char* body) {
  kyr::KyrHttpClient* client =
      url.rfind("http://", 0) == 0 ? kyr::kyrHttpClientCreate(url.c_str()) : nullptr;
  if (client == nullptr) {
    std::cerr << "kyrpublish: '" << url << "' is not an http://HOST:PORT URL\n";
    return std::nullopt;
  }
  KyrHttpResponse* response =
      kyr::kyrHttpClientGetResponse(client, method, target.c_str(), body, kTimeoutSecs);
  std::optional<Answer> answer;
  if (response == nullptr) {
    std::cerr << "kyrpublish: no answer from " << url << "\n";
  } else {
    answer = Answer{response->responseCode, response->body != nullptr ? response->body : ""};
    kyr::kyrHttpClientFreeResponse(response);
  }
  kyr::kyrHttpClientDelete(client);
  return answer;
}

std::string percentEncoded(const std::string& text) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text) {
    if (isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

}  // namespace

int applyCommand(const std::string& url, const std::string& deltaFile, const std::string& group) {
  std::ifstream in(deltaFile);
  if (!in) {
    std::cerr << "kyrpublish: cannot read " << deltaFile << "\n";
    return 2;
  }
  std::stringstream delta;
  delta << in.rdbuf();
  std::string target = "/apply" + (group.empty() ? "" : "?name=" + percentEncoded(group));
  std::optional<Answer> answer = exchange(url, "POST", target, delta.str().c_str());
  if (!answer) return 2;
  if (answer->status != 200) {
    std::cerr << "kyrpublish: the publisher refused the delta (" << answer->status
              << "): " << firstLine(answer->body) << "\n";
    return 1;
  }
  json_t* result = json_loads(answer->body.c_str(), 0, nullptr);
  std::cout << "applied as version " << json_integer_value(json_object_get(result, "version"))
            << "\n";
  json_decref(result);
  return 0;
}

int statusCommand(const std::string& url, bool json) {
  std::optional<Answer> answer = exchange(url, "GET", "/status", nullptr);
  if (!answer) return 2;
  json_t* status = answer->status == 200 ? json_loads(answer->body.c_str(), 0, nullptr) : nullptr;
  if (!json_is_object(status)) {
    std::cerr << "kyrpublish: no status from " << url << " (" << answer->status
              << "): " << firstLine(answer->body) << "\n";
    json_decref(status);
    return 2;
  }
  if (json) {
    std::cout << answer->body << "\n";
  } else {
    printStatusTable(std::cout, status);
  }
  json_decref(status);
  return 0;
}

}  // namespace kyrpublish
