// bc20_logger_print: the XML dump of a format 2.0 log, for people.
//
// Reads the log through the record reader and writes one element per action, in file order,
// to the log at INFO (facility LOGGER) and, if asked, to `_LOG_XML_20` in the CBM directory.
// Owns its memory context and output stream for the length of the call; the input stream
// stays the caller's. It runs no handlers, changes no model and is not a validator.
#ifndef J480_TOOLS_WAL_CONVERTER_BC20_LOGGER_PRINT_H
#define J480_TOOLS_WAL_CONVERTER_BC20_LOGGER_PRINT_H

struct stream;

// `s`: a fresh binary read stream on LOG, standing behind the mark. `to_file` non-zero writes
// `_LOG_XML_20` as well. 0, or -1 for a null stream or a refused version.
int bc20_bm_logger_print(stream* s, int to_file);

#endif  // J480_TOOLS_WAL_CONVERTER_BC20_LOGGER_PRINT_H
