/*
 * print.h: the output of a verb that prints once, and colours.
 */
#ifndef OUTPUT_PRINT_H
#define OUTPUT_PRINT_H

#include <string>

namespace output
{

/* To stdout. kDone, also when the reader has gone, or kError with a complaint. */
int print_out(const std::string &text);

/* What the environment says of colours at a terminal. NO_COLOR counts when it is set and not empty. */
bool wants_colours();

}  // namespace output

#endif
