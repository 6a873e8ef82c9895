// Reads comma- or tab-separated values with libcsv.
#ifndef ORV_TOOLS_CSV_READER_H
#define ORV_TOOLS_CSV_READER_H

#include <functional>
#include <string>
#include <vector>

typedef std::vector<std::string> CsvRow;

// Reads standard input to its end, and calls `use` for each row. Only the rows of a small block of the input are in
// memory at a time. `encoding` is a name that iconv_open(3) knows; "" is UTF-8. Throws Failure if the input cannot be
// read, converted or parsed; `use` may have been called before.
void ReadCsv(char separator, const std::string& encoding, const std::function<void(const CsvRow&)>& use);

#endif  // ORV_TOOLS_CSV_READER_H
