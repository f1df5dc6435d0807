// service/tests/missing_values.h: for tests: the values of a schedule's key, and what the log says without each.
#pragma once

namespace qx::testing {

struct MissingValue {
  const char16_t* name;
  const char* text;
};
inline constexpr MissingValue kMissingValues[] = {
    {u"XMLFilePathName", "Query Value of XML file path failed"},
    {u"UseGUID", "Query Value of UseGUID fails"},
    {u"WrapperBinary", "Query Value of wrapper binary fails"},
    {u"Parameters", "Query Value of parameters failed"},
    {u"PostScript", "Query Value of post script failed "},
    {u"PreScript", "Query Value of prescript failed "},
};

}  // namespace qx::testing
