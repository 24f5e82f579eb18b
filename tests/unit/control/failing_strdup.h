#pragma once

/// While it lives, strdup() has no memory left for the calling thread.
class failing_strdup {
public:
  failing_strdup();
  ~failing_strdup();
  failing_strdup(const failing_strdup&) = delete;
  failing_strdup& operator=(const failing_strdup&) = delete;
};
