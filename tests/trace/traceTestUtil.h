// Helpers shared by the trace tests: managers built from catalogue text held in the test, the
// print callback that records what the library hands the host (support/traceCapture.h), and the
// redirect that lets death tests (which see standard error only) match messages printed on
// standard output.
#pragma once

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "runtime/kyrLibUtil.h"
#include "support/traceCapture.h"
#include "tr.h"
#include "trace/trSpec.h"

namespace kyrtest {

// A stream positioned at the start of `text`; any bytes, NUL included.
inline FILE* streamOf(const std::string& text) {
  FILE* f = tmpfile();
  fwrite(text.data(), 1, text.size(), f);
  rewind(f);
  return f;
}

inline TrMgr* managerFrom(const std::string& catalogue) {
  return trMgrCreate(streamOf(catalogue), 1);
}

// Owns a manager for one test and empties the death row afterwards, so that the memory counter
// of the next test starts from a clean row.
struct ManagerDeleter {
  void operator()(TrMgr* mgr) const {
    trMgrDelete(mgr);
    kyr::trPurgeDeathRow();
  }
};
struct TestManager : std::unique_ptr<TrMgr, ManagerDeleter> {
  explicit TestManager(const std::string& catalogue) : unique_ptr(managerFrom(catalogue)) {}
};

// For death tests: from here on, standard output goes where the death test looks.
inline void stdoutToStderr() {
  fflush(stdout);
  dup2(STDERR_FILENO, STDOUT_FILENO);
}

// A catalogue in the shapes the real one uses: nested groups, an entry with a record that
// refers to it, records with a separate defaultLevel or only one, and a record outside any group.
inline const char* const kCatalogue = R"(<?xml version="1.0" encoding="UTF-8"?>
<!-- test catalogue -->
<group name=control description="Control of the library">
  <record name=process level=INFO/>
  <group name=json>
    <record name=received level=DEBUG/>
    <record name=applied level=DEBUG defaultLevel=INFO/>
  </group>
</group>
<group name=http>
  <entry name=badHost id=KYR0001 level=ERROR><text>Bad host %s</text></entry>
  <record id=KYR0001/>
  <record name=select level=WARNING/>
  <record name=quiet defaultLevel=NOTICE/>
</group>
<record name=top level=ERROR/>
)";

}  // namespace kyrtest
