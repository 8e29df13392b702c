// The kestrix-score command line.
#pragma once

namespace score {

// Runs the program; returns the exit status.
int Main(int argc, char** argv);

}  // namespace score
