#include "text.h"

#include <algorithm>
#include <cctype>
#include <cstdint>

namespace zs {
namespace {

const char kReplacement[] = "\xEF\xBF\xBD";  // U+FFFD

void append_code_point(std::string& out, uint32_t cp) {
    if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
        out += kReplacement;
    } else if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

// Length of the well-formed UTF-8 sequence at s[i], or 0 (Unicode table 3-7).
size_t sequence_length(const std::string& s, size_t i) {
    const auto b = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
    const unsigned char c = b(i);
    if (c < 0x80) return 1;
    size_t n;
    unsigned char lo = 0x80, hi = 0xBF;
    if (c >= 0xC2 && c <= 0xDF)
        n = 2;
    else if (c >= 0xE0 && c <= 0xEF) {
        n = 3;
        if (c == 0xE0) lo = 0xA0;
        if (c == 0xED) hi = 0x9F;  // no surrogates
    } else if (c >= 0xF0 && c <= 0xF4) {
        n = 4;
        if (c == 0xF0) lo = 0x90;
        if (c == 0xF4) hi = 0x8F;
    } else {
        return 0;
    }
    if (i + n > s.size()) return 0;
    if (b(i + 1) < lo || b(i + 1) > hi) return 0;
    for (size_t k = 2; k < n; ++k)
        if (b(i + k) < 0x80 || b(i + k) > 0xBF) return 0;
    return n;
}

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::string percent_decode(const std::string& name, const std::string& value) {
    std::string out;
    for (size_t i = 0; i < value.size(); ++i) {
        if (value[i] != '%') {
            out += value[i];
            continue;
        }
        if (i + 2 >= value.size())
            throw std::invalid_argument("bad percent-encoding in URI attribute " + name);
        const int hi = hex_value(value[i + 1]), lo = hex_value(value[i + 2]);
        if (hi < 0 || lo < 0) throw std::invalid_argument("bad percent-encoding in URI attribute " + name);
        out += static_cast<char>(hi * 16 + lo);
        i += 2;
    }
    return out;
}

std::string percent_encode(const std::string& bytes, bool everything) {
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : bytes) {
        const bool unreserved = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                                c == '-' || c == '.' || c == '_' || c == '~';
        if (unreserved && !everything) {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += digits[c >> 4];
            out += digits[c & 15];
        }
    }
    return out;
}

}  // namespace

std::string to_utf8(const std::wstring& text) {
    std::string out;
    for (wchar_t c : text) append_code_point(out, static_cast<uint32_t>(c));
    return out;
}

std::string clean_utf8(const std::string& bytes) {
    std::string out;
    for (size_t i = 0; i < bytes.size();) {
        const size_t n = sequence_length(bytes, i);
        if (n == 0) {
            out += kReplacement;
            ++i;
        } else {
            out.append(bytes, i, n);
            i += n;
        }
    }
    return out;
}

std::string printable(const std::string& bytes) {
    std::string out = clean_utf8(bytes);
    for (char& c : out)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '?';
    return out;
}

std::string json_string(const std::string& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out = "\"";
    for (char ch : clean_utf8(bytes)) {
        const auto c = static_cast<unsigned char>(ch);
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            case '\b':
                out += "\\b";
                break;
            case '\f':
                out += "\\f";
                break;
            default:
                if (c < 0x20) {
                    out += "\\u00";
                    out += digits[c >> 4];
                    out += digits[c & 15];
                } else {
                    out += ch;
                }
        }
    }
    return out + "\"";
}

std::string to_hex(const Bytes& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : bytes) {
        out += digits[c >> 4];
        out += digits[c & 15];
    }
    return out;
}

Bytes from_hex(const std::string& text) {
    std::string digits;
    for (char c : text) {
        if (c == ':') continue;
        if (hex_value(c) < 0) throw std::invalid_argument("not a hexadecimal identifier: " + text);
        digits += c;
    }
    if (digits.empty() || digits.size() % 2 != 0)
        throw std::invalid_argument("a hexadecimal identifier needs an even number of digits: " + text);
    Bytes out;
    for (size_t i = 0; i < digits.size(); i += 2)
        out.push_back(static_cast<unsigned char>(hex_value(digits[i]) * 16 + hex_value(digits[i + 1])));
    return out;
}

Selector parse_pkcs11_uri(const std::string& uri) {
    const std::string scheme = "pkcs11:";
    if (uri.size() < scheme.size() || uri.compare(0, scheme.size(), scheme) != 0)
        throw std::invalid_argument("not a pkcs11: URI: " + uri);
    std::string path = uri.substr(scheme.size());
    const size_t query = path.find('?');
    if (query != std::string::npos) {
        // A PIN in the URI would be a PIN in the arguments.
        if (path.find("pin-value", query) != std::string::npos)
            throw std::invalid_argument(
                "a PIN does not belong in the URI: use ZORVO_PIN, --pin-env or --pin-file");
        throw std::invalid_argument("URI query attributes are not supported: " + path.substr(query));
    }
    Selector s;
    std::map<std::string, bool> seen;
    std::vector<std::string> attrs(1);
    for (char c : path) {
        if (c == ';')
            attrs.emplace_back();
        else
            attrs.back() += c;
    }
    for (const std::string& attr : attrs) {
        if (attr.empty()) continue;
        const size_t eq = attr.find('=');
        if (eq == std::string::npos) throw std::invalid_argument("URI attribute without a value: " + attr);
        const std::string name = attr.substr(0, eq);
        const std::string value = percent_decode(name, attr.substr(eq + 1));
        if (seen[name]) throw std::invalid_argument("URI attribute given twice: " + name);
        seen[name] = true;
        if (name == "token" || name == "manufacturer" || name == "model" || name == "serial") {
            s.token[name] = value;
        } else if (name == "object") {
            s.hasLabel = true;
            s.label = value;
        } else if (name == "id") {
            s.hasId = true;
            s.id.assign(value.begin(), value.end());
        } else if (name == "type") {
            if (value != "cert")
                throw std::invalid_argument("URI type=" + value +
                                            ": only certificates (type=cert) can be chosen");
        } else {
            throw std::invalid_argument("URI attribute not supported: " + name);
        }
    }
    return s;
}

Selector parse_selector(const std::string& text) {
    if (text.compare(0, 7, "pkcs11:") == 0) return parse_pkcs11_uri(text);
    Selector s;
    if (text.compare(0, 3, "id:") == 0) {
        s.hasId = true;
        s.id = from_hex(text.substr(3));
        return s;
    }
    if (text.compare(0, 7, "serial:") == 0) {
        // Written as openssl and list write it: upper case, no leading zeros.
        s.serial = to_hex(from_hex(text.substr(7)));
        for (char& c : s.serial) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        s.serial.erase(0, std::min(s.serial.find_first_not_of('0'), s.serial.size() - 1));
        return s;
    }
    s.hasLabel = true;
    s.label = text.compare(0, 6, "label:") == 0 ? text.substr(6) : text;
    if (s.label.empty()) throw std::invalid_argument("empty certificate label");
    return s;
}

std::string pkcs11_uri(const std::map<std::string, std::string>& token, const std::string& label,
                       const Bytes& id) {
    std::string uri = "pkcs11:";
    for (const char* key : {"token", "manufacturer", "model", "serial"}) {
        auto it = token.find(key);
        if (it != token.end()) uri += std::string(key) + "=" + percent_encode(it->second, false) + ";";
    }
    uri += "object=" + percent_encode(label, false) + ";";
    uri += "id=" + percent_encode(std::string(id.begin(), id.end()), true) + ";type=cert";
    return uri;
}

}  // namespace zs
