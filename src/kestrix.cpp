#include "core/run.h"

int main(int argc, char** argv) { return KestrixMain(argc, argv); }
