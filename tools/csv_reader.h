// Reads comma- or tab-separated values with libcsv.
#ifndef ORV_TOOLS_CSV_READER_H
#define ORV_TOOLS_CSV_READER_H

#include <string>
#include <vector>

typedef std::vector<std::vector<std::string>> CsvRows;

// Reads standard input to its end. Throws Failure if it cannot be read or parsed.
CsvRows ReadCsvFromStandardInput(char separator);

#endif  // ORV_TOOLS_CSV_READER_H
