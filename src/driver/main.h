// Program entry, the help text, the signal handlers and the dispatch of the
// one command of a run.
#pragma once

int KestrixMain(int argc, char** argv);
void help();
void KestrixIntExit(int signal);
void KestrixSigExit(int signal);
void MainProgram();
