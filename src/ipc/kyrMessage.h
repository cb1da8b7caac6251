// The frame between the worker processes of one web server: a fixed header and a body, read
// and written whole over a unix-domain stream socket.
#pragma once

#include "kyrlib.h"

namespace kyr {

// Every byte, repeating short transfers; -1 when the peer is gone or the socket failed.
int readBytes(int fd, void* ptr, size_t toRead);
int writeBytes(int fd, const void* ptr, size_t toWrite);
// Stamps the sender's pid, then writes the header and the body (if len is at least 1).
int writeMessage(int fd, KyrMessage* msg);
// Reads one message; the body (null for len 0) belongs to the caller (kyrMessageFreeBody). A
// negative or oversized len is a broken connection: -1.
int readMessage(int fd, KyrMessage* msg);
void kyrMessageFreeBody(KyrMessage* msg);
// A message whose body is the text with its terminating zero (null: no body).
KyrMessage kyrMessageWithText(KyrMessageType type, const char* text);

}  // namespace kyr
