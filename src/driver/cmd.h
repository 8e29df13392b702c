// Command-line switches into the run parameters.
#pragma once

int ParseArguments(int count, char** arguments);

int HandleCmdGpsType(char* value);
int HandleCmdPort(char* value);
int HandleCmdLog(char* value);
int HandleCmdBulkLog(char* value);
int HandleCmdWptRead(char* value);
int HandleCmdWptWrite(char* value);
int HandleCmdGap(char* value);
int HandleCmdTranslate(char* value);
int HandleCmdFlightSelect(char* value);
