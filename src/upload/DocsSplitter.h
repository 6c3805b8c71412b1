// Cuts a body of the form {"docs":[...]} into parts of at most `unit` documents without parsing
// the documents: the composers write their bodies with the JSON generator, compactly, so each
// document's text is already what the generator would write for it again.
//
// Thread: any (no state). Errors: split() returns false, and leaves `parts` empty, for anything
// that is not exactly a compact {"docs":[...]} object with at least one element and balanced
// elements; the caller then takes the parser's way, which logs what is wrong.
#pragma once

#include <string>
#include <string_view>
#include <vector>

class DocsSplitter {
  public:
    // Each part is {"docs":[e1,...,ek]}, k at most `unit` (at least 1); `sizes` gets each part's
    // number of documents.
    static bool split(std::string_view body, int unit, std::vector<std::string>& parts,
                      std::vector<int>& sizes);

  private:
    // One past the end of the object that starts at `pos`, or npos when there is no object
    // there, it is unbalanced or unterminated, or it holds white space outside its strings.
    static std::size_t objectEnd(std::string_view text, std::size_t pos);
};
