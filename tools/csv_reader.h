// Comma- or tab-separated values, as libcsv understands them.
#ifndef ORV_TOOLS_CSV_READER_H
#define ORV_TOOLS_CSV_READER_H

#include <string>
#include <vector>

typedef std::vector<std::vector<std::string>> CsvRows;

// Reads standard input to its end. Throws Failure where it cannot be read or is no such text.
CsvRows ReadCsvFromStandardInput(char separator);

#endif  // ORV_TOOLS_CSV_READER_H
