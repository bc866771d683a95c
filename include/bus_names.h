#pragma once

/* The names under which the daemon's two interfaces are found on the system bus. */

inline constexpr const char *SONOBRIK_OBJECT_PATH = "/com/vesk/Sonobrik"; /* of both interfaces */

inline constexpr const char *SONOBRIK_SERVICE = "com.vesk.Sonobrik";
inline constexpr const char *SONOBRIK_INTERFACE = "com.vesk.Sonobrik";

/* Change notices describe clips as entries of the legacy interface. */
inline constexpr const char *SONOBRIK_LEGACY_SERVICE = "com.vesk.Sonobrik.Legacy";
inline constexpr const char *SONOBRIK_LEGACY_INTERFACE = "com.vesk.Configuration.Legacy";
