// The agent's status answer is one flat JSON object; tavelctl shows it as
// aligned lines without pulling in a JSON library.
#ifndef TAVELCTL_FLAT_JSON_H
#define TAVELCTL_FLAT_JSON_H

#include <string>
#include <vector>

struct FlatJsonMember {
    std::string key;
    std::string value; // the text of a string (unescaped) or of a number or literal
    bool isNull = false;
};

// Parses an object whose values are strings, numbers, true, false or null.
// Nested objects, arrays and anything after the object fail the parse.
// \u escapes above U+007F become '?': the agent sends ASCII only.
bool parseFlatJson(const std::string &text, std::vector<FlatJsonMember> *members);

#endif
