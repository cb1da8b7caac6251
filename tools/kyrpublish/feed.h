// One routing document as web servers receive it: the complete document a newcomer gets, its
// version, and the deltas kept from older versions, so that a web server that missed edits gets
// them merged into one delta. Not thread-safe: the publisher's lock guards every feed.
#pragma once

#include <jansson.h>

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>

namespace kyrpublish {

// A serialized answer, shared by every connection it goes out on.
using Text = std::shared_ptr<const std::string>;

class Feed {
 public:
  // Takes the reference on a checked document; it becomes version 1. `keep` (at least 1) is
  // how many deltas are kept.
  Feed(json_t* document, size_t keep);
  ~Feed();
  Feed(const Feed&) = delete;
  Feed& operator=(const Feed&) = delete;

  int64_t version() const { return version_; }
  size_t deltasKept() const { return deltas_.size(); }

  // The complete document ("delta": false) with the version.
  Text complete();
  // What a web server holding `vid` (not the current version) needs: the delta from there to
  // now, merged when it spans several edits, or the complete document when vid is not one of
  // the versions kept.
  Text since(int64_t vid);
  // Nothing new: the version alone, which the library applies as an empty delta.
  Text unchanged();

  // A new checked document from the cell file (takes the reference). False when it routes like
  // the current one: nothing changes then. An edit no delta can carry (the publisher's protocol
  // level) starts the history afresh, so every web server gets the complete document.
  bool replace(json_t* document);
  // A delta pushed by hand (takes the reference): mirrored into the document and served as the
  // next version. Empty on success, else why it was refused (and nothing changed).
  std::string push(json_t* delta);

 private:
  void addVersion(json_t* answer) const;
  Text stamp(json_t* document, bool delta) const;
  void record(json_t* delta, json_t* document);

  json_t* current_;  // the document served now, without version stamps
  int64_t version_ = 1;
  // The document at the oldest version kept, version_ - deltas_.size(); deltas_[i] leads from
  // that version + i to the next. A web server's older document is rebuilt from these.
  json_t* base_;
  std::deque<json_t*> deltas_;
  size_t keep_;
  // Answers already serialized for the current version, dropped when it moves; `since_` holds
  // only versions that are kept, so it stays bounded.
  Text complete_, unchanged_;
  std::map<int64_t, Text> since_;
};

}  // namespace kyrpublish
