#pragma once

#include <string>

// Writes the demo's game package, a zip holding "game.config.json" (portrait, no status bar) and
// a few asset files, to `path`. False when the file cannot be written.
bool WriteSamplePackage(const std::string& path);
