#include "PluginQueries.h"

#include <vector>

#include "HttpText.h"

namespace {

struct FormList {
  std::string_view list;  // the plug-in list's JSON text
  std::string problem;    // why there is none
};

// The runtime writes a query body as "client_id=...&device_id=...&...&plugin_list=<JSON>": its
// keys in a fixed order, the list last, every value inserted raw, never percent-encoded. A value
// may hold "&" and "=" (a device id), and the list holds whatever text a game gave its plug-ins,
// "&plugin_list=" included, so a generic form decoder, which splits at every "&", misreads such
// bodies. Each key is looked for where the runtime writes it instead: right after the value
// before it, and the list, being last, runs to the end of the body.
FormList PluginListText(PluginQueries::Kind kind, std::string_view body) {
  static const std::vector<std::string> kUrlKeys = {"client_id",      "device_id",  "app_bundle_id",
                                                    "client_version", "cpu_abi",    "os",
                                                    "os_version",     "plugin_list"};
  static const std::vector<std::string> kHashKeys = {
      "client_id", "device_id", "game_id",    "app_bundle_id", "client_version",
      "cpu_abi",   "os",        "os_version", "plugin_list"};
  const auto& keys = kind == PluginQueries::Kind::Url ? kUrlKeys : kHashKeys;
  if (!body.starts_with(keys.front() + "=")) return {{}, "the body does not start with client_id="};
  body.remove_prefix(keys.front().size() + 1);
  for (std::size_t i = 1; i < keys.size(); ++i) {
    const std::string separator = "&" + keys[i] + "=";
    const auto at = body.find(separator);
    if (at == body.npos) return {{}, "the body has no " + keys[i] + " after " + keys[i - 1]};
    body.remove_prefix(at + separator.size());
  }
  return {body, {}};
}

std::string Text(const ZMValue& object, const char* key) {
  if (!object.is_object()) return {};
  const auto it = object.find(key);
  return it != object.end() && it->is_string() ? it->get<std::string>() : std::string();
}

}  // namespace

std::optional<ZMValue> PluginQueries::answer(Kind kind, std::string_view body,
                                             const std::string& packageBase, bool mayBlock) {
  const FormList form = PluginListText(kind, body);
  if (!form.problem.empty()) return ZMValue{{"code", 400}, {"message", form.problem}};
  const ZMValue list = ZMValue::parse(form.list.begin(), form.list.end(), nullptr, false);
  if (!list.is_array()) {
    return ZMValue{{"code", 400}, {"message", "plugin_list is not a JSON array"}};
  }
  ZMValue results = ZMValue::array();
  for (const auto& asked : list) {
    const std::string provider = Text(asked, "plugin_id"), version = Text(asked, "version");
    if (provider.empty() || version.empty()) continue;
    const std::string name = provider + "_" + version + ".zip";
    bool unhashed = false;
    const auto md5 = packages_.md5(name, mayBlock ? nullptr : &unhashed);
    if (unhashed) return std::nullopt;
    if (!md5) continue;
    // The hash query lists only what changed; the url query everything that exists.
    if (kind == Kind::Hash && Text(asked, "hash") == *md5) continue;
    results.push_back({{"plugin_id", provider},
                       {"version", version},
                       {"hash", *md5},
                       {"url", packageBase + "/" + PercentEncode(name)}});
  }
  return ZMValue{{"code", 200}, {"plugin_results", std::move(results)}};
}
