// The routing documents kept in tests/data, read whole.
#pragma once

#include <fstream>
#include <sstream>
#include <string>

namespace kyrtest {

inline std::string readTestData(const char* file) {
  std::ifstream in(std::string(KYR_TEST_DATA_DIR) + "/" + file);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace kyrtest
