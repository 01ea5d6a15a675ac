#include "result.h"

namespace {

const struct {
    Result result;
    int status;
    const char *reason;
} OUTCOMES[] = {
    {Result::ok, 0, "ok"},
    {Result::missing, 0, "ok"},
    {Result::collection_error, 0, "ok"},
    {Result::refused, 1, "refused"},
    {Result::output_failure, 2, "output"},
    {Result::busy, 3, "busy"},
    {Result::interrupted, 5, "interrupted"},
    {Result::bad_config, 6, "configuration"},
    {Result::no_memory, 8, "memory"},
};

}  // namespace

int exit_status(Result result)
{
    for (const auto &outcome : OUTCOMES)
        if (outcome.result == result)
            return outcome.status;
    return 2;
}

const char *failure_reason(Result result)
{
    for (const auto &outcome : OUTCOMES)
        if (outcome.result == result)
            return outcome.reason;
    return "error";
}
