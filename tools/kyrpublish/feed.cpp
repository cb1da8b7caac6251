// Versions of one document. An edit is diffed against the document served; the delta is kept,
// stamped with its version, and an older web server's document is rebuilt from the oldest one
// kept so that a merged delta is the diff from exactly what that web server holds.
#include "feed.h"

#include <cstdlib>

#include "cellDiff.h"
#include "deltaApply.h"

namespace kyrpublish {
namespace {

Text dump(json_t* json) {
  char* text = json_dumps(json, JSON_COMPACT);
  auto result = std::make_shared<const std::string>(text != nullptr ? text : "{}");
  free(text);
  return result;
}

}  // namespace

Feed::Feed(json_t* document, size_t keep)
    : current_(document), base_(json_deep_copy(document)), keep_(keep < 1 ? 1 : keep) {}

Feed::~Feed() {
  json_decref(current_);
  json_decref(base_);
  for (json_t* delta : deltas_) json_decref(delta);
}

// Every answer carries the version and the document's "restVersion": the library takes the
// latter from each document it applies, and a delta without one would make it read the web
// modules' URIs as an old publisher's.
void Feed::addVersion(json_t* answer) const {
  json_object_set_new(answer, "version", json_integer(version_));
  json_t* restVersion = json_object_get(current_, "restVersion");
  if (json_is_integer(restVersion)) json_object_set(answer, "restVersion", restVersion);
}

// A shallow copy carries the stamps, so the stored document stays as the file wrote it and
// the next edit is diffed against content alone.
Text Feed::stamp(json_t* document, bool delta) const {
  json_t* copy = json_copy(document);
  addVersion(copy);
  json_object_set_new(copy, "delta", json_boolean(delta));
  Text text = dump(copy);
  json_decref(copy);
  return text;
}

Text Feed::complete() {
  if (!complete_) complete_ = stamp(current_, false);
  return complete_;
}

Text Feed::unchanged() {
  if (!unchanged_) {
    json_t* empty = json_object();
    addVersion(empty);
    unchanged_ = dump(empty);
    json_decref(empty);
  }
  return unchanged_;
}

Text Feed::since(int64_t vid) {
  int64_t oldest = version_ - static_cast<int64_t>(deltas_.size());
  if (vid < oldest || vid >= version_) return complete();
  auto cached = since_.find(vid);
  if (cached != since_.end()) return cached->second;
  Text text;
  if (vid == version_ - 1) {
    text = stamp(deltas_.back(), true);
  } else {
    json_t* held = json_deep_copy(base_);
    for (int64_t v = oldest; v < vid; ++v)
      applyDelta(held, deltas_[static_cast<size_t>(v - oldest)]);
    json_t* merged = diffDocuments(held, current_);
    // Edits that cancel out leave nothing to apply but the version.
    text = merged != nullptr ? stamp(merged, true) : unchanged();
    json_decref(merged);
    json_decref(held);
  }
  since_[vid] = text;
  return text;
}

// `delta` leads from the current document to `document`; null when none can, and the history
// starts afresh at the new version.
void Feed::record(json_t* delta, json_t* document) {
  json_decref(current_);
  current_ = document;
  ++version_;
  if (delta == nullptr) {
    for (json_t* kept : deltas_) json_decref(kept);
    deltas_.clear();
    json_decref(base_);
    base_ = json_deep_copy(document);
  } else {
    deltas_.push_back(delta);
  }
  while (deltas_.size() > keep_) {
    applyDelta(base_, deltas_.front());
    json_decref(deltas_.front());
    deltas_.pop_front();
  }
  complete_.reset();
  unchanged_.reset();
  since_.clear();
}

bool Feed::replace(json_t* document) {
  json_t* delta = diffDocuments(current_, document);
  if (delta == nullptr) {
    json_decref(document);
    return false;
  }
  if (!deltaLimitation(current_, document).empty()) {
    // No delta brings a web server there: every one gets the new complete document.
    json_decref(delta);
    delta = nullptr;
  }
  record(delta, document);
  return true;
}

std::string Feed::push(json_t* delta) {
  if (json_is_false(json_object_get(delta, "delta"))) {
    json_decref(delta);
    return "a complete document cannot be pushed; edit the cell file instead";
  }
  json_t* document = json_deep_copy(current_);
  applyDelta(document, delta);
  std::string problem = checkDocument(document);
  if (!problem.empty()) {
    json_decref(document);
    json_decref(delta);
    return "the document would not be servable after it: " + problem;
  }
  // The publisher numbers versions; whatever the hand-written delta says is dropped.
  json_object_del(delta, "version");
  json_object_del(delta, "restVersion");
  json_object_set_new(delta, "delta", json_true());
  record(delta, document);
  return "";
}

}  // namespace kyrpublish
