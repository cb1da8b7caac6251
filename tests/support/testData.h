// The routing documents kept in tests/data (or another directory of test data), read whole.
#pragma once

#include <fstream>
#include <sstream>
#include <string>

namespace kyrtest {

inline std::string readTestData(const char* file, const char* dir = KYR_TEST_DATA_DIR) {
  std::ifstream in(std::string(dir) + "/" + file);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace kyrtest
