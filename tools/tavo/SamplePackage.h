#pragma once

#include <string>

// Writes the demo's game package, a zip holding "game.config.json" (portrait, no status bar, one
// plug-in: "tavo-physics" 1.0) and a few asset files, to `path`. False when the file cannot be
// written.
bool WriteSamplePackage(const std::string& path);

// A plug-in package for the sample game's plug-in ("tavo-physics" 1.0): one file whose text
// names `revision`, so that a newer package of the same version differs in its bytes.
bool WriteSamplePlugin(const std::string& path, int revision);
