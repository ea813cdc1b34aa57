#pragma once

/// @file
/// ZMValue, the dynamic value of the API.

#include <nlohmann/json.hpp>

/// ZMValue is every dynamic value of the API: option dictionaries, JSON file contents, plug-in
/// infos. Objects keep their keys in insertion (file) order. A null dictionary is a JSON null.
using ZMValue = nlohmann::ordered_json;
