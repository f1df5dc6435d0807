// interface/records.h: the records, identifiers and status codes of the client interface.
//
// All are values, which any thread may copy. A counted string is either absent (a null string) or has text.
// Times are seconds since 1970 in UTC, signed 32 bits; flags are 32 bits wide, 0 or not 0.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/guid.h"

// A counted wide string: absent, or text (which may be empty).
using BSTR = std::optional<std::u16string>;
// 0 for success, a code below, 1, or a failed system call in the form 0x8007xxxx.
using Status = std::uint32_t;
using ScheduleGuid = platform::GUID;

// Identifiers of the type library QXSCHEDSERVICELib, version 1.0.
inline constexpr ScheduleGuid LIBID_QXSCHEDSERVICELib{
    0xF1D593D8, 0x0CEC, 0x4569, {0x89, 0x43, 0x55, 0xC6, 0x09, 0xCF, 0xD2, 0xF4}};
inline constexpr ScheduleGuid CLSID_SchedulerService{
    0x99E6EA90, 0xFFAE, 0x46F2, {0xB9, 0x40, 0x62, 0x51, 0x9E, 0x6E, 0x0F, 0xD6}};
inline constexpr ScheduleGuid IID_ISchedulerService{
    0x5D5A7ABD, 0x0414, 0x4C56, {0x92, 0xF9, 0xB3, 0x3B, 0x7B, 0x48, 0xE1, 0xAC}};
inline constexpr ScheduleGuid IID_ISchedulerServiceEvents{
    0xB6F846B1, 0xB6E7, 0x4F33, {0xA6, 0x4B, 0x5D, 0xAD, 0x10, 0x3E, 0xA8, 0x70}};
inline constexpr ScheduleGuid GUID_SCHEDULE_OBJECT{
    0xADAB1A8F, 0x62D9, 0x4DAA, {0x86, 0xB0, 0xF4, 0xFF, 0xB7, 0x79, 0x87, 0xD0}};
inline constexpr ScheduleGuid GUID_SCHEDULE_RULE{
    0xC8F05E16, 0xCE53, 0x4908, {0x9E, 0xD7, 0x96, 0xC8, 0x12, 0x80, 0x95, 0x7E}};
inline constexpr ScheduleGuid GUID_SCHEDULE_OBJECT_EX{
    0xE50E8E0E, 0x94C6, 0x40E7, {0xAF, 0x4F, 0xA7, 0xFD, 0x79, 0xAF, 0x9A, 0xA6}};
inline constexpr ScheduleGuid GUID_parameterType{
    0x33D7D210, 0x8256, 0x4861, {0x86, 0x33, 0xC3, 0xCA, 0x6F, 0x89, 0x50, 0xDC}};

enum parameterType : std::int32_t { APPLICATION_NAME = 1, OBJECT_ID = 2 };  // of UpdateList(): what its value names

inline constexpr std::size_t kDaysOfMonthCount = 32;    // index 0 to 30 is day 1 to 31, 31 the last day of the month
inline constexpr std::size_t kDaysOfWeekCount = 7;      // 0 is Sunday
inline constexpr std::size_t kSpecificDateCount = 365;  // of include dates, and of exclude dates

struct SCHEDULE_RULE {                                           // when a schedule runs
  std::int32_t lStartTime = 0;                                   // 0: not given
  std::int32_t lEndTime = 0;                                     // 0: not given
  std::uint32_t dwTimeDuration = 0;                              // milliseconds; 0: not given; wins over the end
  std::uint32_t bEffectiveDate = 0;                              // 1: the next one counts; 2 to 255 till the next start
  std::int32_t lEffectiveDate = 0;                               // first date of validity
  std::uint32_t bRestartInterval = 0;                            // 1: the next one counts; 2 to 255 till the next start
  std::uint32_t dwRestartInterval = 0;                           // milliseconds
  std::uint32_t bRepeatInterval = 0;                             // 1: the next one counts; 2 to 255 till the next start
  std::int32_t dwRepeatInterval = 0;                             // days. Deliberate: signed, unlike its neighbour
  std::int32_t lAnchorDate = 0;                                  // date from which the repeat counts; 0: not given
  std::array<std::int16_t, kDaysOfMonthCount> adwDaysOfMonth{};  // not 0: that day, by index
  std::uint32_t bLastDayOfMonth = 0;  // Deliberate: declared, not read: the last day travels as adwDaysOfMonth[31]
  std::array<std::uint32_t, kDaysOfWeekCount> dwDaysOfWeek0{};    // first week of the month
  std::array<std::uint32_t, kDaysOfWeekCount> dwDaysOfWeek1{};    // second week
  std::array<std::uint32_t, kDaysOfWeekCount> dwDaysOfWeek2{};    // third week
  std::array<std::uint32_t, kDaysOfWeekCount> dwDaysOfWeek3{};    // fourth week
  std::array<std::uint32_t, kDaysOfWeekCount> dwDaysOfWeek4{};    // last week
  std::array<std::int32_t, kSpecificDateCount> alIncludeDates{};  // ended by the first 0
  std::array<std::int32_t, kSpecificDateCount> alExcludeDates{};  // ended by the first 0
  friend bool operator==(const SCHEDULE_RULE&, const SCHEDULE_RULE&) = default;
};

struct SCHEDULE_OBJECT {             // a schedule as clients send and get it
  BSTR bstrName;                     // lives in the .ini file only; not a key
  BSTR bstrDescription;              // lives in the .ini file only
  BSTR bstrApplication;              // immutable after creation
  BSTR bstrObjectID;                 // immutable after creation
  std::uint32_t dwTaskOpCode = 0;    // immutable after creation; the client's own code
  BSTR bstrWrapperBinaryName;        // the program to start; required
  BSTR bstrXMLFilePathName;          // its directory also holds the .ini file
  BSTR bstrParameters;               // more arguments for the program
  BSTR bstrPreScript;                // handed on as an argument
  BSTR bstrPostScript;               // handed on as an argument
  std::uint32_t bRunNow = 0;         // start once at once, on top of the rules
  std::uint32_t bUseGUID = 0;        // put the schedule's ID on the command line
  std::int32_t lNextTimeWindow = 0;  // output only
  SCHEDULE_RULE stScheduleRules;     // when it runs
  friend bool operator==(const SCHEDULE_OBJECT&, const SCHEDULE_OBJECT&) = default;
};

// The short form of a list.
struct SCHEDULE_OBJECT_EX {
  std::uint32_t dwTaskOpCode = 0;  // the client's own code
  BSTR bstrScheduleID;             // in braces, upper case
  BSTR bstrApplication;            // the owning application
  BSTR bstrObjectID;               // the application's object
  BSTR bstrWrapperBinaryName;      // the program to start
  BSTR bstrXMLFilePathName;        // the file handed to it
  BSTR bstrParameters;             // more arguments
  BSTR bstrPreScript;              // an argument
  BSTR bstrPostScript;             // an argument
  std::uint32_t bUseGUID = 0;      // whether the ID is on the command line
  friend bool operator==(const SCHEDULE_OBJECT_EX&, const SCHEDULE_OBJECT_EX&) = default;
};

// Status codes of the service, all of the interface facility.
inline constexpr Status kStatusOk = 0;
inline constexpr Status kStatusFailure = 1;                     // failed launch, missing wrapper, failed allocation
inline constexpr Status kStatusJobExists = 0x80040200;          // a job with this ScheduleID already exists
inline constexpr Status kStatusRegistryRead = 0x80040202;       // the schedule's registry data can't be read
inline constexpr Status kStatusRegistryWrite = 0x80040203;      // ... can't be written
inline constexpr Status kStatusSchedulesKey = 0x80040204;       // the "Schedules" key can't be opened for deleting
inline constexpr Status kStatusImmutable = 0x80040205;          // an immutable value was to be changed
inline constexpr Status kStatusModify = 0x80040206;             // other failure of a modification in the registry
inline constexpr Status kStatusList = 0x80040207;               // the registry can't be listed
inline constexpr Status kStatusRulesInvalid = 0x80040209;       // the rules are invalid for an unknown reason
inline constexpr Status kStatusNoRunDay = 0x8004020A;           // no run day rule defined
inline constexpr Status kStatusDateOverlap = 0x8004020B;        // an include/exclude date overlap
inline constexpr Status kStatusRestartTooLong = 0x8004020C;     // the restart interval exceeds the time window
inline constexpr Status kStatusNoSuchKey = 0x8004020D;          // the schedule has no registry key
inline constexpr Status kStatusNoDirectory = 0x8004020F;        // the directory of the XML path doesn't exist
inline constexpr Status kStatusBackdated = 0x80040210;          // the rules lie wholly in the past
inline constexpr Status kStatusNotFoundForDelete = 0x80040214;  // can't be found or read for deleting
