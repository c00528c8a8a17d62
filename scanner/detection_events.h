// What happens when the engine finds something: a record in the log and an event for the
// appliance's management daemon.
//
// All of it runs on the thread that is scanning, inside the engine's callback, with the opener
// still waiting. Several threads may be here at once; nothing is shared but the logger and the
// dynamic loader.
#pragma once

#include <cstdint>
#include <string>

#include "logger.h"
#include "vse.h"

/// The engine's handle as the session id of log records: a signed pointer-sized number, widened.
std::int64_t session_id(const void* handle);

/// The engine's event callback. Handles vseEvIdDetect, ignores every other event.
/// @return 0
int myEvents(void* handle, unsigned int event_id, void* event_data) noexcept;

/// Read one detail of the detection back from the engine. A read that fails appends an error
/// record and leaves the output as it was.
void get_object_name(void* handle, std::string& out);
void get_archive_name(void* handle, std::string& out);
void get_detection_props(void* handle, std::string& name, std::string& type, std::string& accuracy);
/// The engine's constant name of the detection type.
void get_detection_type(void* handle, std::string& out);
void get_scan_result(void* handle, std::string& out);

/// Words for the engine's codes. An unknown type leaves the output as it was; an unknown accuracy
/// is "Unknown", an unknown result "Unknown result".
void get_string_detection_type(unsigned int code, std::string& out);
void get_string_detection_accuracy(unsigned int code, std::string& out);
void get_string_scan_result(unsigned int code, std::string& out);

/// The length of a text with its XML escapes, plus 1.
std::size_t escape_for_xml_len(const char* text);

/// A copy with the five XML escapes; every other byte, control characters included, stays.
std::string escape_for_xml(const std::string& text);

/// Pushes the detection through the appliance's event library, loaded for this one event. Without
/// the library, or its function, a notice goes to the system log.
void logEventToNAS(void* handle, const Logger::detection_info& info);
