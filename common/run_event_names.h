// The words of `kestrelQT_u --json`: event names, field names and the exit status of
// a stopped run. The writer of these lines is JsonSink in frontend/run_sinks.cpp
// (the failure classes are in common/failure_kind.h); it uses exactly these
// names and this status, because kestrel_gang reads the lines by them. A field
// renamed on one side only would leave the gang's table and report silently empty.
#pragma once

namespace run_event {

// Every line is one JSON object whose "event" field says which event it is.
constexpr char kFieldEvent[] = "event";

constexpr char kEventStart[] = "start";        // port, rate, images
constexpr char kEventProgress[] = "progress";  // region, phase, done, total
constexpr char kEventRegion[] = "region";      // region, bytes, seconds, kbytes_per_s
constexpr char kEventResult[] = "result";      // ok, exit_code, message, seconds, bytes
constexpr char kEventPort[] = "port";          // path, vid, pid, serial, driver, by_id
constexpr char kEventImage[] = "image";        // role, path, valid, error, sections (-s)
constexpr char kEventLink[] = "link";          // rate: auto-baud's verified or stepped-down rate

constexpr char kFieldPort[] = "port";
constexpr char kFieldRate[] = "rate";
constexpr char kFieldImages[] = "images";
constexpr char kFieldRegion[] = "region";
constexpr char kFieldPhase[] = "phase";
constexpr char kFieldDone[] = "done";    // bytes of the region done so far
constexpr char kFieldTotal[] = "total";  // bytes of the region
constexpr char kFieldBytes[] = "bytes";
constexpr char kFieldSeconds[] = "seconds";
constexpr char kFieldKbytesPerS[] = "kbytes_per_s";  // KB of 1,000 bytes
constexpr char kFieldOk[] = "ok";
constexpr char kFieldExitCode[] = "exit_code";
constexpr char kFieldMessage[] = "message";
constexpr char kFieldPath[] = "path";
constexpr char kFieldVid[] = "vid";
constexpr char kFieldPid[] = "pid";
constexpr char kFieldSerial[] = "serial";
constexpr char kFieldDriver[] = "driver";
constexpr char kFieldById[] = "by_id";
constexpr char kFieldRole[] = "role";          // "main" or "etf"
constexpr char kFieldValid[] = "valid";
constexpr char kFieldError[] = "error";        // the parser's reason, empty when valid
constexpr char kFieldSections[] = "sections";  // header fields by their image-format names
constexpr char kFieldAdapter[] = "adapter";  // port and start events: chip family, when known

// The exit status (and result exit_code) of a run the operator stopped; the same
// value as FailureKind::kStopped.
constexpr int kExitStopped = 8;

}  // namespace run_event
