// A structure-aware mutation of routing documents for fuzz_documents: byte mutations seldom turn
// one valid document into another that names an object of the wrong type, so half of the
// mutations parse a document of the input and change its structure instead: an object's type,
// a top-level object's parent, a relationship's end, the ends of a relationship swapped, or the
// operation a part of the document belongs to. The other half are libFuzzer's own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kyrfuzz {

// Between two documents of one input.
inline constexpr std::string_view kDocumentSeparator = "\n%%\n";

// Full names that edits may put in place of a parent or a relationship end, taken from a
// document (the cell every input starts from); those of the mutated document join them for
// its own edits.
void documentMutatorAddNames(const std::string& document);

// libFuzzer's custom mutator contract: mutates data (size bytes, at most maxSize) in place and
// returns the new size; the same input and seed give the same mutation.
size_t mutateDocuments(uint8_t* data, size_t size, size_t maxSize, unsigned int seed);

}  // namespace kyrfuzz
