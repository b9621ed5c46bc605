#pragma once

/// The remainder of @a x / @a y with the sign of @a x, exact, as C's fmod() (C11, 7.12.10.1), but
/// that it sets no errno.
///
/// Where pugixml is linked in, the link takes it for fmod(), which XPath's operator mod calls.
/// Nothing else needs the mathematics library, and loading that is 2 to 3 % of a small run.
///
/// @return NaN when @a x is infinite, @a y is zero, or one of them is NaN
extern "C" double norvak_exact_fmod(double x, double y) noexcept;
