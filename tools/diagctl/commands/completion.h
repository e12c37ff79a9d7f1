// Shell completion from the program's own commands and options.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

// A script for bash that completes the commands of app, their options, and the words that arguments may have.
std::string bash_completion(const CLI::App &app);
