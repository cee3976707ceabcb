#include "protocol/management.h"

bool management_name_valid(std::string_view name) {
  if (name.empty() || name.size() > MANAGEMENT_NAME_MAX) return false;
  for (char c : name)
    if (c == '\a' || c == '\b' || c == '\f' || c == '\n' || c == '\r' || c == '\t' || c == '\v' || c == '\0')
      return false;
  return true;
}

management_outcome management_outcome_of(std::string_view reason) {
  if (reason == MANAGEMENT_UNKNOWN_NAME) return MANAGEMENT_NAME_UNKNOWN;
  if (reason == MANAGEMENT_DUPLICATE_NAME) return MANAGEMENT_NAME_TAKEN;
  return MANAGEMENT_FAILED;
}

bool management_worth_repeating(std::string_view reason) { return reason == MANAGEMENT_RESURRECTING; }
