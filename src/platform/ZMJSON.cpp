#include "platform/ZMJSON.h"

#include <cstdio>

namespace {

void appendEscaped(std::string& out, const std::string& text) {
  out += '"';
  for (unsigned char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '/':
        out += "\\/";
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
          char buffer[8];
          std::snprintf(buffer, sizeof buffer, "\\u%04x", c);
          out += buffer;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  out += '"';
}

void write(std::string& out, const ZMValue& value, int depth) {
  const std::string indent(static_cast<std::size_t>(depth + 1) * 2, ' ');
  const std::string closing(static_cast<std::size_t>(depth) * 2, ' ');
  if (value.is_object()) {
    out += "{\n";
    bool first = true;
    for (auto it = value.begin(); it != value.end(); ++it) {
      if (!first) out += ",\n";
      first = false;
      out += indent;
      appendEscaped(out, it.key());
      out += " : ";
      write(out, it.value(), depth + 1);
    }
    out += '\n';
    out += closing;  // also for an empty object: "{\n\n  }" when nested
    out += '}';
  } else if (value.is_array()) {
    out += "[\n";
    bool first = true;
    for (const auto& element : value) {
      if (!first) out += ",\n";
      first = false;
      out += indent;
      write(out, element, depth + 1);
    }
    out += '\n';
    out += closing;  // also for an empty array: "[\n\n  ]" when nested
    out += ']';
  } else if (value.is_string()) {
    appendEscaped(out, value.get<std::string>());
  } else {
    out += value.dump();
  }
}

}  // namespace

std::string ZMJSONPrettyString(const ZMValue& value) {
  std::string out;
  write(out, value, 0);
  return out;
}

namespace {

ZMError formatError(const std::string& reason) {
  return ZMError(kZMCocoaErrorDomain, kZMPropertyListReadCorruptError,
                 ZMValue{{kZMLocalizedDescriptionKey,
                          "The data couldn\u2019t be read because it isn\u2019t in the correct "
                          "format. (" +
                              reason + ")"}});
}

}  // namespace

std::optional<ZMValue> ZMJSONParse(std::string_view text, ZMError* error) {
  // The parser itself does not recurse; a container past the limit is dropped as it opens (so no
  // deep tree is ever built) and the whole text is refused afterwards.
  bool tooDeep = false;
  const auto bound = [&tooDeep](int depth, ZMValue::parse_event_t event, ZMValue&) {
    if ((event == ZMValue::parse_event_t::object_start ||
         event == ZMValue::parse_event_t::array_start) &&
        depth >= kZMJSONMaxDepth) {
      tooDeep = true;
    }
    return !tooDeep;
  };
  try {
    ZMValue value = ZMValue::parse(text.begin(), text.end(), bound);
    if (!tooDeep) return value;
    if (error) {
      *error = formatError("nested deeper than " + std::to_string(kZMJSONMaxDepth) + " levels");
    }
  } catch (const nlohmann::json::exception& e) {
    if (error) *error = formatError(e.what());
  }
  return std::nullopt;
}

std::string ZMJSONLogText(const ZMValue& value, std::size_t limit) {
  // Text from files and the network may not be UTF-8; a log line must never throw.
  std::string text = value.dump(-1, ' ', false, ZMValue::error_handler_t::replace);
  if (text.size() <= limit) return text;
  std::size_t cut = limit;
  while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
  text.resize(cut);
  text += "...";
  return text;
}
