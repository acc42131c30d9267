#pragma once

// The steps a camera's Error names, so that whoever tells the user can say each in its own words
// without PipeWire's headers.
namespace zandor::camera {

// The loop thread could not start; errno.
inline constexpr const char* StartStep = "start PipeWire's loop";
// No daemon answered; errno.
inline constexpr const char* ConnectStep = "connect to PipeWire";
// The daemon refused the stream; errno, or PipeWire's code with its text.
inline constexpr const char* StreamStep = "make the camera stream";
// The daemon did not make the node in time; ETIMEDOUT.
inline constexpr const char* AnswerStep = "wait for PipeWire";
// The stream failed; the detail is PipeWire's text, empty when it gave none.
inline constexpr const char* RunStep = "run the camera stream";
// The daemon ended the connection; PipeWire's code (a negative errno), the detail its message.
inline constexpr const char* ConnectionStep = "keep the connection to PipeWire";

} // namespace zandor::camera
