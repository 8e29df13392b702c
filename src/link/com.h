// The serial port, its reader thread and the receive FIFO in the run
// parameters. One port per command: the module that opens it closes it.
#pragma once

#include <cstdint>

// File descriptor of the open device; -1 before the first open. Closing
// does not reset it.
extern int32_t hComPort;

// Opens tGps.szComPort raw at `baud` and starts the reader thread; the
// terminal settings found there are kept for CloseComPort.
int32_t OpenComPort(int32_t baud);
int32_t SetComSpeed(int32_t baud);
// Stops the reader thread, puts back the terminal settings that were there
// before and closes the device; the thread has ended when it returns, so
// nothing reads a descriptor number that is reused later.
int32_t CloseComPort();

// The one way a serial command uses the port: open it at `baud`, run
// `stage`, close it whatever the stage returned. -1 when it does not open.
template <typename Stage>
int32_t RunComCommand(int32_t baud, Stage stage) {
  if (OpenComPort(baud) < 0) return -1;
  int32_t result = stage();
  CloseComPort();
  return result;
}

// The commands of a family that keeps one transfer record per exchange: a
// cleared record, the instrument identified by the family's ReadProductData,
// then `stage` with the record. The family's own ResetTransfer and
// ReadProductData are found in its namespace.
template <typename Transfer, typename Stage>
int32_t RunIdentified(Stage stage) {
  Transfer transfer;
  ResetTransfer(&transfer);
  int32_t result = ReadProductData(&transfer);
  return result == 0 ? stage(&transfer) : result;
}

// The reader thread's body: moves everything received into the FIFO.
void* ComThread(void* unused);

void FlushComFifo();
int32_t NonEmptyComFifo();
// 1 at once when a byte waits; otherwise sleeps and returns 0 without
// looking again.
int32_t NonEmptyComFifoWithSleep(int32_t milliseconds);
// Only after a non-empty test: it does not check.
uint8_t ReadComFifo();

int32_t WriteComString(const char* text);
int32_t WriteComData(const uint8_t* data, int32_t length);
// Appends one byte as if it had been received (no full check).
void WriteComFifo(uint8_t byte);

// Stands in for the device, so that answers can be replayed without a port,
// a reader thread or real waiting. Open and close print what they print
// with a device.
struct LinkStandIn {
  // Everything the program writes.
  void (*sent)(const uint8_t* data, int32_t length);
  // The program waits `microseconds`: the moment to put answer bytes into
  // the FIFO (WriteComFifo) and let the stand-in's clock run.
  void (*waited)(uint32_t microseconds);
  // The port opens (1) or closes (0).
  void (*opened)(int32_t open);
  // The program sets the line speed.
  void (*speed)(int32_t baud);
};
// Null: the device again.
void UseLinkStandIn(const LinkStandIn* standIn);
// Every pause of the instrument modules goes through here.
void PauseLink(uint32_t microseconds);
