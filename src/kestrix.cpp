#include "driver/main.h"

int main(int argc, char** argv) { return KestrixMain(argc, argv); }
