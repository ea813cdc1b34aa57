#pragma once

#include <string_view>

#include "HttpMessage.h"
#include "PackageDirectory.h"

// The answer to a GET or HEAD of the file `name` in `directory`: the whole file, or the one
// byte range a Range header asks for (206; 416 when none of it is in the file; a header with
// several ranges, or one that does not parse, is passed over and the whole file sent). Any
// regular file in the directory is served, so a file beside a package (its signature) needs
// nothing more than a URL naming it.
HttpResponse ServeFile(const PackageDirectory& directory, std::string_view name,
                       const HttpRequest& request);
