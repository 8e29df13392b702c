// kestrix-score: the exact cross-country score of an IGC flight.
#include "score/cli.h"

int main(int argc, char** argv) { return score::Main(argc, argv); }
