#include "Cli.h"

int main(int argc, char** argv) { return zandor::Cli::run({argv + 1, argv + argc}); }
