#pragma once

#include <string>
#include <string_view>

// Path text helpers with Foundation's rules: one separator between components, no trailing
// separator.
std::string ZMPathJoin(std::string_view base, std::string_view component);
std::string ZMLastPathComponent(std::string_view path);
// Seconds since 1970, with fractions.
double ZMNow();
