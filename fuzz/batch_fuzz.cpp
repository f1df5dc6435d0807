// One line of `qxsched next --batch`: whatever it is, the answer is one line of JSON.
#include <nlohmann/json.hpp>

#include "client/batch.h"
#include "fuzz/fuzz_target.h"

using qx::fuzz::Require;

QX_FUZZ_TARGET(batch) {
  const std::string answer = qx::AnswerBatchLine(qx::fuzz::Text(data, size));
  Require(answer.find('\n') == std::string::npos, "an answer is one line");
  const nlohmann::json parsed = nlohmann::json::parse(answer, nullptr, false);
  Require(parsed.is_object() && parsed.contains("id"), "an answer is an object with an id");
  Require(parsed.contains("error") != parsed.contains("windows"), "an answer has windows or an error");
  return 0;
}
