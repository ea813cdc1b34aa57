#pragma once

#include "Reporter.h"
#include "Session.h"

// `tavo demo`: serves a generated game package from a loopback HTTP server in this process and
// walks the whole game cycle against a fresh temporary root, saying what each step did. The root
// is deleted at the end unless `keep` is set. Returns the exit status.
int RunDemo(Reporter& reporter, Session::Settings settings, bool keep);
