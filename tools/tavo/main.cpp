#include <CLI/CLI.hpp>
#include <iostream>

#include "tavo/tavo.h"

int main(int argc, char** argv) {
  CLI::App app{"tavo: try libtavo's game runtime from a terminal"};
  app.require_subcommand(1);
  auto* info = app.add_subcommand("info", "Print the runtime's version and storage layout");
  (void)info;
  CLI11_PARSE(app, argc, argv);
  std::cout << "libtavo " << libtavoVersionNumber << "\n";
  return 0;
}
