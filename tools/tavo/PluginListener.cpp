#include "PluginListener.h"

#include <string>

namespace {

std::string Name(const ZMValue& info) {
  auto text = [&](const char* key) {
    return info.is_object() && info.contains(key) && info[key].is_string()
               ? info[key].get<std::string>()
               : std::string("?");
  };
  return text("provider") + " " + text("version");
}

ZMValue Error(const ZMError& error) { return Reporter::errorValue(error); }

}  // namespace

void PluginListener::onCheckPluginVersionStart(const ZMValue& info) {
  reporter_.event("onCheckPluginVersionStart", ZMValue::array({info}));
}

void PluginListener::onCheckPluginSuccess(const ZMValue& info) {
  reporter_.event("onCheckPluginSuccess", ZMValue::array({info}));
  reporter_.say("  plug-in " + Name(info) + " is installed");
  succeed();
}

void PluginListener::onCheckPluginFailure(const ZMValue& info, const ZMError& error) {
  reporter_.event("onCheckPluginFailure", ZMValue::array({info, Error(error)}));
  // A config without its plug-in directory is reported, deleted, and then the check succeeds
  // all the same: that failure is not the last callback. The exit status stays a failure.
  fail(error, error.domain != "Error:plugin package no exist.");
}

void PluginListener::onPluginInstallStart(const ZMValue& info) {
  reporter_.event("onPluginInstallStart", ZMValue::array({info}));
}

void PluginListener::onPluginDownloadProgress(const ZMValue& info, int64_t downloadSize,
                                              int64_t totalSize) {
  reporter_.event("onPluginDownloadProgress", ZMValue::array({info, downloadSize, totalSize}));
  reporter_.progress("download", downloadSize, totalSize, "bytes");
}

void PluginListener::onPluginDownloadRetry(const ZMValue& info, int64_t retryNo) {
  reporter_.event("onPluginDownloadRetry", ZMValue::array({info, retryNo}));
}

void PluginListener::onPluginInstallSuccess(const ZMValue& info) {
  reporter_.event("onPluginInstallSuccess", ZMValue::array({info}));
  reporter_.say("  plug-in " + Name(info) + " installed");
  succeed();
}

void PluginListener::onPluginInstallFailure(const ZMValue& info,
                                            const std::optional<ZMError>& error) {
  // Null only without any service host.
  const ZMError reported = error.value_or(ZMError("no plug-in service host", 0));
  reporter_.event("onPluginInstallFailure",
                  ZMValue::array({info, error ? Error(*error) : ZMValue()}));
  // A package that could not be deleted after a good unpack is reported, and the install then
  // succeeds all the same: that failure is not the last callback.
  const bool last = reported.domain.rfind("deleteFile failure", 0) != 0;
  fail(reported, last);
}

void PluginListener::onPluginRemoveStart(const ZMValue& info) {
  reporter_.event("onPluginRemoveStart", ZMValue::array({info}));
}

void PluginListener::onPluginRemoveFinish(const ZMValue& info) {
  reporter_.event("onPluginRemoveFinish", ZMValue::array({info}));
  reporter_.say("  removed plug-in " + Name(info));
}

void PluginListener::onPluginRemoveSuccess(const ZMValue& removed) {
  reporter_.event("onPluginRemoveSuccess", ZMValue::array({removed}));
  setItems(removed);
  succeed();
}

void PluginListener::onPluginRemoveFailure(const ZMError& error) {
  reporter_.event("onPluginRemoveFailure", ZMValue::array({Error(error)}));
  fail(error);
}

void PluginListener::onListGameSuccess(const ZMValue& items) {
  reporter_.event("onListGameSuccess", ZMValue::array({items}));
  setItems(items);
  for (const auto& item : items) reporter_.say("  " + Name(item) + "  " + item.value("path", ""));
  if (items.empty()) reporter_.say("  (none)");
  succeed();
}
