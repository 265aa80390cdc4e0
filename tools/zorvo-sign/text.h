#pragma once
// Text helpers of zorvo-sign that need no token: UTF-8, JSON, hex and pkcs11: URIs.
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace zs {

using Bytes = std::vector<unsigned char>;

/// Wide text (UTF-32 on Linux) as UTF-8; values that are no code point become U+FFFD.
std::string to_utf8(const std::wstring& text);
/// The bytes as valid UTF-8: every ill-formed sequence becomes U+FFFD.
std::string clean_utf8(const std::string& bytes);
/// For a terminal: clean_utf8, and control characters shown as '?'.
std::string printable(const std::string& bytes);
/// A JSON string literal, quotes included, of clean_utf8(bytes).
std::string json_string(const std::string& bytes);

std::string to_hex(const Bytes& bytes);
/// Hex digits, optionally separated by ':'; throws std::invalid_argument.
Bytes from_hex(const std::string& text);

/// What a pkcs11: URI or a --cert selector asks for; an absent attribute matches anything.
struct Selector {
    std::map<std::string, std::string> token;  // "token", "manufacturer", "model", "serial"
    bool hasLabel = false;
    std::string label;  // the certificate's CKA_LABEL ("object")
    bool hasId = false;
    Bytes id;            // the certificate's CKA_ID
    std::string serial;  // the certificate's serial number, hexadecimal as serial_hex() gives it
};

/// A --cert value: "label:NAME", "id:HEX", "serial:HEX", a pkcs11: URI, or a plain NAME (a label).
/// Throws std::invalid_argument with a message for the user.
Selector parse_selector(const std::string& text);
/// An RFC 7512 URI: the path attributes token, manufacturer, model, serial, object, id and
/// type (which must be "cert"), values percent-decoded. Throws std::invalid_argument.
Selector parse_pkcs11_uri(const std::string& uri);

/// The URI naming one certificate, every value percent-encoded except unreserved characters.
std::string pkcs11_uri(const std::map<std::string, std::string>& token, const std::string& label,
                       const Bytes& id);

}  // namespace zs
