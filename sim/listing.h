// One row of a control command's listing, written once and printed either way: as
// "key=value" words for people or as a JSON object for scripts.  Keys are given in camel
// case ("stoppedAt"); the words spell them with dashes ("stopped-at").
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

class SimRow {
  public:
    SimRow& num(const char* key, uint64_t v) { return put(key, std::to_string(v), {}); }
    SimRow& num(const char* key, double v) {
        char buf[64];
        std::snprintf(buf, sizeof buf, "%.3f", v);
        return put(key, buf, {});
    }
    SimRow& flag(const char* key, bool v) { return put(key, v ? "true" : "false", v ? "1" : "0"); }
    // Words without blanks; JSON quotes them.
    SimRow& word(const char* key, const std::string& v) { return put(key, "\"" + v + "\"", v); }
    SimRow& none(const char* key) { return put(key, "null", "-"); }

    std::string json() const {
        std::string o = "{";
        for (const Field& f : _fields) o += (o.size() > 1 ? ",\"" : "\"") + f.key + "\":" + f.json;
        return o + "}";
    }
    std::string text() const {
        std::string o;
        for (const Field& f : _fields) {
            if (!o.empty()) o += ' ';
            for (char c : f.key)
                o += c >= 'A' && c <= 'Z' ? std::string("-") + char(c - 'A' + 'a')
                                          : std::string(1, c);
            o += "=" + f.text;
        }
        return o;
    }

  private:
    struct Field {
        std::string key, json, text;
    };
    SimRow& put(const char* key, std::string json, std::string text) {
        if (text.empty()) text = json;
        _fields.push_back({key, std::move(json), std::move(text)});
        return *this;
    }
    std::vector<Field> _fields;
};

// The rows one a line, or one JSON array.
inline std::string simListing(const std::vector<SimRow>& rows, bool json) {
    std::string o = json ? "[" : "";
    for (size_t i = 0; i < rows.size(); ++i)
        o += json ? (i ? "," : "") + rows[i].json() : rows[i].text() + "\n";
    return json ? o + "]\n" : o;
}
