// Random mutations of a valid input, for the fuzz-style tests of parsers:
// each call makes one to four edits (replace, erase, insert a character from
// `alphabet`, or duplicate a slice). Deterministic for a given generator.
#pragma once

#include <random>
#include <string>
#include <string_view>

namespace tv::test {

inline std::string mutate(std::string doc, std::mt19937& rng, std::string_view alphabet)
{
    int edits = 1 + static_cast<int>(rng() % 4);
    for (int e = 0; e < edits && !doc.empty(); ++e) {
        std::size_t pos = rng() % doc.size();
        switch (rng() % 4) {
        case 0: doc[pos] = alphabet[rng() % alphabet.size()]; break;
        case 1: doc.erase(pos, 1 + rng() % 8); break;
        case 2: doc.insert(pos, 1, alphabet[rng() % alphabet.size()]); break;
        case 3: doc.insert(pos, doc.substr(rng() % doc.size(), rng() % 32)); break;
        }
    }
    return doc;
}

} // namespace tv::test
