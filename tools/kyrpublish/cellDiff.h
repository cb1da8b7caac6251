// The publisher's diff engine: whether a cell document can be served as a complete document,
// and the delta that brings a web server's library from one complete document to the next, in
// the form the library applies ("del", then "add", then "set"; links removed before their
// objects and made after them).
//
// Objects are identified by their full name (the parent's full name followed by the object's
// own "name"). The order of objects and of relationship elements carries no meaning, but for
// the endpoints ("transport") of a server that has two of one protocol: requests go to the
// first. A property whose value is null, or of a JSON type its row has no setter for, means the
// same as a missing one: the library skips it, on a new object as on an existing one.
//
// How a change reaches the library:
// - A deleted object is deleted with its whole subtree, deepest first: the library's delete of
//   most rows does not take the children along, and a child left in the object map would keep
//   a deleted server alive and refuse a later object of the same name.
// - An added object comes with its subtree as one top-level entry named by its full name (the
//   library finds the parent from the full name, and an "add" naming an existing parent would
//   be refused whole).
// - A changed property goes into "set" when setting it on the existing object gives what a new
//   object with the new properties would be; where the library keeps the old value (a clone ID
//   is taken once, an unknown maintenance mode keeps the old one, a rule is sorted when it is
//   created, an endpoint joins its protocol's list when created, ...) the object is deleted and
//   added again with its subtree, and the relationships that name anything in it are removed
//   and made again. A removed property is a "set" to null where that is enough (rows the library
//   rebuilds from its stored document, the cell, whose null clears a custom property, and
//   properties that had no effect), otherwise the object is added again.
// - An add whose path the library's search of its stored document would leave early (a sibling
//   whose name is a prefix of the path, such as /server/s1 before /server/s10) adds the
//   ancestor at the level where the search stops again instead, so the stored document keeps
//   its shape.
// - A server whose endpoints of one protocol would end up in another order than the document's
//   is added again.
// - A server that stays and gains a server application has its "server:webModule" links
//   removed and made again: a link takes the application into the module's virtual cluster
//   only when it is made (or when a waiting link's application starts).
// - A change to what a module's affinity policy is built from (its cluster's cookie names,
//   separator and learning flag, its cluster, the members that bring cookie names or the
//   separator) reaches the policy only when the library rebuilds its version, which it built
//   at the first request: the delta then names an object of a row that rebuilds (a "set"
//   without properties of an application or module that stays).
#pragma once

#include <jansson.h>

#include <string>

namespace kyrpublish {

// Empty when the document can be served as a complete document; otherwise one line naming the
// first problem found.
std::string checkDocument(const json_t* doc);

// A new delta ("delta": true, the new document's "restVersion" if it has one, no "version")
// that turns the library's state for oldDoc into its state for newDoc, or NULL when the two
// route the same (equal objects, properties and relationships). oldDoc is the document the
// library was given last, or the library's copy of it as deltas left it (applyDelta in
// deltaApply.h). Both documents must pass checkDocument; for a document that does not, the
// result is NULL. The caller owns the result.
json_t* diffDocuments(const json_t* oldDoc, const json_t* newDoc);

// Empty when diffDocuments' delta brings a library holding oldDoc to newDoc; otherwise why not,
// and the new document must be sent complete instead. The one such change is the publisher's
// protocol level ("restVersion"): the library rebuilds its model from the stored document, which
// keeps the level its complete document came with.
std::string deltaLimitation(const json_t* oldDoc, const json_t* newDoc);

}  // namespace kyrpublish
