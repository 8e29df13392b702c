// The configuration file "kestrix.cfg" of the current directory.
#pragma once

void GetConfigParameters();
int GetStringParameter(const char* line, const char* key, char* destination, int maximum);
