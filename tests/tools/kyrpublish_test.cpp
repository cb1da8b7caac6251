// The publisher without a network: what a web server holding each version is answered (the last
// edit's delta, missed edits merged, the complete document, the version alone), deltas pushed by
// hand, and the query keys and bodies of the REST protocol it accepts and refuses.
#include <gtest/gtest.h>
#include <jansson.h>

#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "cellDiff.h"
#include "deltaApply.h"
#include "feed.h"
#include "restRequest.h"

namespace {

using namespace kyrpublish;

struct JsonFree {
  void operator()(json_t* j) const { json_decref(j); }
};
using Json = std::unique_ptr<json_t, JsonFree>;

Json load(const std::string& file) {
  Json doc(json_load_file((std::string(KYR_EXAMPLES_DIR) + "/cell/" + file).c_str(), 0, nullptr));
  EXPECT_NE(doc, nullptr) << file;
  return doc;
}

Json parse(const Text& text) { return Json(json_loads(text->c_str(), 0, nullptr)); }

json_t* child(json_t* parent, const char* name) {
  size_t i;
  json_t* object;
  json_array_foreach(json_object_get(parent, "objects"), i, object) {
    if (strcmp(json_string_value(json_object_get(object, "name")), name) == 0) return object;
  }
  return nullptr;
}

// A copy of the document with one property of a server of the example cell set.
Json withServer(const json_t* doc, const char* node, const char* server, const char* key,
                json_t* value) {
  Json copy(json_deep_copy(doc));
  json_t* cell = json_array_get(json_object_get(json_object_get(copy.get(), "add"), "objects"), 0);
  json_t* props = json_object_get(child(child(cell, node), server), "props");
  json_object_set_new(props, key, value);
  return copy;
}

Json maintenance(const json_t* doc) {
  return withServer(doc, "/node/n2", "/server/s3", "server.maintenancemode",
                    json_string("affinity"));
}

// What a web server holding `held` has after the answer: the answer applied as its library
// keeps its copy of the publisher's document.
Json afterAnswer(const json_t* held, const Text& answer) {
  Json doc(json_deep_copy(held));
  Json delta = parse(answer);
  EXPECT_TRUE(json_is_true(json_object_get(delta.get(), "delta"))) << *answer;
  applyDelta(doc.get(), delta.get());
  return doc;
}

void expectSameRouting(const json_t* a, const json_t* b) {
  Json diff(diffDocuments(a, b));
  EXPECT_EQ(diff, nullptr) << json_dumps(diff.get(), JSON_COMPACT);
}

int64_t versionOf(const Text& answer) {
  return json_integer_value(json_object_get(parse(answer).get(), "version"));
}

// The example cell as version 1 of a feed that keeps up to 100 deltas.
class FeedTest : public ::testing::Test {
 protected:
  Json v1 = load("cell.json");
  Feed feed{json_deep_copy(v1.get()), 100};
};

TEST_F(FeedTest, EachVersionBehindGetsOneDeltaStampedWithVersionAndRestVersion) {
  Json v2 = maintenance(v1.get());
  Json v3 = withServer(v2.get(), "/node/n1", "/server/s1", "weight", json_integer(7));
  Json v4 = withServer(v3.get(), "/node/n1", "/server/s2", "weight", json_integer(5));
  for (const Json& next : {std::cref(v2), std::cref(v3), std::cref(v4)}) {
    ASSERT_TRUE(feed.replace(json_deep_copy(next.get())));
  }
  const json_t* held[] = {v1.get(), v2.get(), v3.get()};
  for (int64_t vid = 1; vid <= 3; ++vid) {
    Json answer = parse(feed.since(vid));
    EXPECT_EQ(json_integer_value(json_object_get(answer.get(), "version")), 4);
    EXPECT_EQ(json_integer_value(json_object_get(answer.get(), "restVersion")), 2);
    expectSameRouting(afterAnswer(held[vid - 1], feed.since(vid)).get(), v4.get());
  }
}

TEST_F(FeedTest, EditsThatCancelOutLeaveTheVersionAlone) {
  ASSERT_TRUE(feed.replace(maintenance(v1.get()).release()));
  ASSERT_TRUE(feed.replace(json_deep_copy(v1.get())));
  EXPECT_EQ(*feed.since(1), R"({"version":3,"restVersion":2})");
  EXPECT_EQ(*feed.since(1), *feed.unchanged());
}

TEST_F(FeedTest, VersionsNotKeptOrNeverServedGetTheCompleteDocument) {
  Json v2 = maintenance(v1.get());
  Feed oneKept(json_deep_copy(v1.get()), 1);
  ASSERT_TRUE(oneKept.replace(json_deep_copy(v2.get())));
  ASSERT_TRUE(oneKept.replace(json_deep_copy(v1.get())));
  EXPECT_EQ(oneKept.deltasKept(), 1u);
  for (int64_t vid : {1, 7, -1}) {
    Json answer = parse(oneKept.since(vid));
    EXPECT_TRUE(json_is_false(json_object_get(answer.get(), "delta"))) << vid;
    EXPECT_EQ(json_integer_value(json_object_get(answer.get(), "version")), 3) << vid;
  }
  expectSameRouting(afterAnswer(v2.get(), oneKept.since(2)).get(), v1.get());
}

TEST_F(FeedTest, ARewriteWithoutChangeKeepsTheVersion) {
  EXPECT_FALSE(feed.replace(json_deep_copy(v1.get())));
  EXPECT_EQ(feed.version(), 1);
}

TEST_F(FeedTest, APushedDeltaIsServedAsTheNextVersionAndJoinsTheDocument) {
  EXPECT_EQ(feed.push(load("maintenance-delta.json").release()), "");
  EXPECT_EQ(feed.version(), 2);
  EXPECT_EQ(versionOf(feed.since(1)), 2);
  Json complete = parse(feed.complete());
  json_object_del(complete.get(), "version");
  expectSameRouting(complete.get(), maintenance(v1.get()).get());
  // The file never had it: the next edit takes it away.
  ASSERT_TRUE(feed.replace(json_deep_copy(v1.get())));
  expectSameRouting(afterAnswer(complete.get(), feed.since(2)).get(), v1.get());
}

TEST_F(FeedTest, APushThatCannotBeServedChangesNothing) {
  Text before = feed.complete();
  EXPECT_NE(feed.push(json_pack("{s:b}", "delta", 0)), "");
  // A server straight under the cell passes the mirroring but not the check.
  EXPECT_NE(feed.push(json_pack("{s:{s:[{s:s, s:s}]}}", "add", "objects", "type", "server", "name",
                                "/cell/shop/server/stray")),
            "");
  EXPECT_EQ(feed.version(), 1);
  EXPECT_EQ(*feed.complete(), *before);
}

struct QueryCase {
  QueryArgs args;
  QueryFor purpose;
  std::string problem;  // empty: accepted
};

TEST(RestQueryTest, KeysAreCheckedForEachRequest) {
  using A = QueryArgs;
  const QueryCase cases[] = {
      {A{{"name", "g"}, {"server", "s"}, {"vid", "3"}, {"wait", "300"}}, QueryFor::Poll, ""},
      {A{{"name", "g"}, {"server", ""}}, QueryFor::Post, ""},
      {A{}, QueryFor::Apply, ""},
      {A{{"name", "g"}}, QueryFor::Post, "query key 'server' is missing"},
      {A{{"server", "s"}, {"vid", "1"}, {"wait", "1"}}, QueryFor::Poll,
       "query key 'name' is missing"},
      {A{{"name", ""}, {"server", "s"}}, QueryFor::Post, "query key 'name' is empty"},
      {A{{"name", "g"}, {"server", "s"}, {"vid", "1"}}, QueryFor::Poll,
       "a long poll needs both 'vid' and 'wait'"},
      {A{{"name", "g"}, {"server", "s"}, {"vid", "1x"}, {"wait", "1"}}, QueryFor::Poll,
       "vid '1x' is not an integer"},
      {A{{"name", "g"}, {"server", "s"}, {"vid", "1"}, {"wait", "-1"}}, QueryFor::Poll,
       "wait '-1' is not a number of seconds"},
      {A{{"name", "g"}, {"server", "s"}, {"vid", "1"}}, QueryFor::Post, "unknown query key 'vid'"},
      {A{{"name", "g"}, {"server", "s"}}, QueryFor::Apply, "unknown query key 'server'"},
      {A{{"name", "g"}, {"name", "h"}, {"server", "s"}}, QueryFor::Post,
       "query key 'name' given twice"},
      {A{{"name", std::nullopt}, {"server", "s"}}, QueryFor::Post, "query key 'name' has no value"},
  };
  for (const QueryCase& c : cases) {
    RestQuery query;
    EXPECT_EQ(parseQuery(c.args, c.purpose, query), c.problem)
        << (c.args.empty() ? "" : c.args[0].first);
  }
}

TEST(RestQueryTest, APollReadsItsVersionAndWaitsAtMostAnHour) {
  RestQuery query;
  ASSERT_EQ(parseQuery({{"name", "g"}, {"server", "s"}, {"vid", "-1"}, {"wait", "86400"}},
                       QueryFor::Poll, query),
            "");
  EXPECT_EQ(query.group, "g");
  EXPECT_EQ(query.vid, -1);
  EXPECT_EQ(query.waitSecs, kMaxWaitSecs);
}

TEST(RestBodyTest, EachPostBodyIsRecognisedOrRefused) {
  const struct {
    const char* body;
    std::optional<PostKind> kind;  // none: refused
  } cases[] = {
      {"{'interests': {'objects': [{'type': 'cell', 'cond': 'parentType = \\'webModule\\''}]}}",
       PostKind::Init},
      {R"({"interests": {}})", PostKind::Init},
      {R"({"addRoutes": ["/a"], "delRoutes": []})", PostKind::RouteChange},
      {R"({"healthPolicyName": "p", "serverName": "s", "healthPolicyTriggered": false})",
       PostKind::HealthTrigger},
      {R"({"healthPolicyName": "p", "serverName": "s", "healthPolicyTriggered": "yes"})", {}},
      {R"({"addRoutes": [1]})", {}},
      {R"({"delRoutes": "/a"})", {}},
      {R"(["interests"])", {}},
      {R"({"colour": "blue"})", {}},
      {"'interests'", {}},
      {"", {}},
  };
  for (const auto& c : cases) {
    PostKind kind = PostKind::Init;
    json_t* json = nullptr;
    std::string problem = classifyPost(c.body, kind, json);
    EXPECT_EQ(problem.empty(), c.kind.has_value()) << c.body << ": " << problem;
    if (c.kind) {
      EXPECT_EQ(kind, *c.kind) << c.body;
    }
    // The parsed body comes with the two requests that are recorded.
    EXPECT_EQ(json != nullptr, problem.empty() && kind != PostKind::Init) << c.body;
    json_decref(json);
  }
}

}  // namespace
