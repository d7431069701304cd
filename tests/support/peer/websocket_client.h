#pragma once

#include "websocket_frames.h"

#include <QByteArray>
#include <QByteArrayView>

// The client's side of WebSocket framing, for the tests and benchmarks that play an
// agent or a phone on a raw socket. Not part of the server.
namespace brinmoor::relay::ws {

// The mask key the helpers use unless told otherwise.
inline constexpr char kTestMask[4] = {0x11, 0x22, 0x33, 0x44};

// Appends one masked frame (lengths of every size, final or not).
void appendMaskedFrame(QByteArray& out, Opcode opcode, QByteArrayView payload, const char (&mask)[4] = kTestMask,
                       bool final = true);
QByteArray maskedFrame(Opcode opcode, QByteArrayView payload, bool final = true);

// The request head of a WebSocket handshake for `path`; `extraHeaders` are whole
// header lines ("Name: value\r\n").
QByteArray upgradeRequest(QByteArrayView path, QByteArrayView extraHeaders = {});

// The server's answer to a handshake with that request's key.
QByteArray upgradeResponse(QByteArrayView requestHead);

} // namespace brinmoor::relay::ws
