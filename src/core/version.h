#pragma once

/// The version, and the suffix that is printed behind it everywhere (empty in this build).
constexpr const char version_string[] = "release-3.5.9_bq917rkvn_2725daa_usi";
constexpr const char version_suffix[] = "";
