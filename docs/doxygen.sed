# Turns the headers' own words into paragraphs of the HTML reference, and the log lines under "Diagnostics" into a list.
s|^/// Diagnostics(, ([^:]*))?:|/// @par Diagnostics\n/// \2|
s|^///   ((the line of .*)?")|/// - \1|
s|^/// (Threads\|Disk): |/// @par \1\n/// |
s|^/// There is no result: |/// @par Result\n/// None: |
