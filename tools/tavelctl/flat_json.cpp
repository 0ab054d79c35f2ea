#include "flat_json.h"

#include <ctype.h>
#include <stdlib.h>

namespace
{

struct Reader {
    const std::string &s;
    size_t pos = 0;

    void blanks()
    {
        while (pos < s.size() && (s[pos] == ' ' || s[pos] == '\t' || s[pos] == '\n' || s[pos] == '\r')) {
            ++pos;
        }
    }
    bool take(char c)
    {
        blanks();
        if (pos < s.size() && s[pos] == c) {
            ++pos;
            return true;
        }
        return false;
    }
    bool literal(const char *word)
    {
        size_t n = 0;
        while (word[n] != '\0') {
            ++n;
        }
        if (s.compare(pos, n, word) != 0) {
            return false;
        }
        pos += n;
        return true;
    }
    bool string(std::string *out)
    {
        if (!take('"')) {
            return false;
        }
        out->clear();
        while (pos < s.size()) {
            char c = s[pos++];
            if (c == '"') {
                return true;
            }
            if (static_cast<unsigned char>(c) < 0x20) {
                return false;
            }
            if (c != '\\') {
                *out += c;
                continue;
            }
            if (pos >= s.size()) {
                return false;
            }
            char e = s[pos++];
            static const char kFrom[] = "\"\\/bfnrt";
            static const char kTo[] = "\"\\/\b\f\n\r\t";
            bool simple = false;
            for (size_t i = 0; kFrom[i] != '\0'; ++i) {
                if (e == kFrom[i]) {
                    *out += kTo[i];
                    simple = true;
                }
            }
            if (simple) {
                continue;
            }
            if (e != 'u' || pos + 4 > s.size()) {
                return false;
            }
            for (size_t i = 0; i < 4; ++i) {
                if (!isxdigit(static_cast<unsigned char>(s[pos + i]))) {
                    return false;
                }
            }
            long code = strtol(s.substr(pos, 4).c_str(), nullptr, 16);
            pos += 4;
            *out += code < 0x80 ? static_cast<char>(code) : '?';
        }
        return false;
    }
    bool value(FlatJsonMember *m)
    {
        blanks();
        if (pos >= s.size()) {
            return false;
        }
        if (s[pos] == '"') {
            return string(&m->value);
        }
        for (const char *word : {"true", "false"}) {
            if (literal(word)) {
                m->value = word;
                return true;
            }
        }
        if (literal("null")) {
            m->isNull = true;
            return true;
        }
        size_t start = pos;
        if (s[pos] == '-') {
            ++pos;
        }
        while (pos < s.size() && isdigit(static_cast<unsigned char>(s[pos]))) {
            ++pos;
        }
        if (pos == start || (pos == start + 1 && s[start] == '-')) {
            return false;
        }
        m->value = s.substr(start, pos - start);
        return true;
    }
};

} // namespace

bool parseFlatJson(const std::string &text, std::vector<FlatJsonMember> *members)
{
    Reader r{text};
    members->clear();
    if (!r.take('{')) {
        return false;
    }
    if (!r.take('}')) {
        do {
            FlatJsonMember m;
            if (!r.string(&m.key) || !r.take(':') || !r.value(&m)) {
                return false;
            }
            members->push_back(m);
        } while (r.take(','));
        if (!r.take('}')) {
            return false;
        }
    }
    r.blanks();
    return r.pos == text.size();
}
