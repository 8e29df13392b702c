// The serial port, its reader thread and the receive FIFO in the run
// parameters. One port per command: the module that opens it closes it.
#pragma once

#include <cstdint>

// File descriptor of the open device; -1 before the first open. Closing
// does not reset it.
extern int32_t hComPort;

// Line speed at open for an instrument type code.
int32_t GetComSpeedForType(int32_t gpsType);

int32_t OpenComPort();
int32_t SetComSpeed(int32_t baud);
// Stops the reader thread and closes the device; the thread has ended when
// it returns, so nothing reads a descriptor number that is reused later.
int32_t CloseComPort();

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
