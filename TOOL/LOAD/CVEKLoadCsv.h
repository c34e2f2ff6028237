// CVEKLoadCsv: a table from a CSV file (RFC 4180), whose first line names the columns.
#ifndef CVEK_LOAD_CSV_H
#define CVEK_LOAD_CSV_H

#include <string>
#include <string_view>
#include <vector>

class CVEKLoadCsv {
  public:
    using Row = std::vector<std::string>;

    // False: `error` says in which line what is wrong.
    bool Parse(std::string_view text, std::string& error);

    const Row& GetColumns() const { return columns_; }
    const std::vector<Row>& GetRows() const { return rows_; }

  private:
    Row columns_;
    std::vector<Row> rows_;
};

#endif
