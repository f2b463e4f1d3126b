// Exits 0 when the file holds exactly one JSON document.
#include <nlohmann/json.hpp>

#include <fstream>
#include <iostream>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: quarvel_json_check FILE\n";
        return 2;
    }
    std::ifstream in(argv[1]);
    try {
        nlohmann::json doc = nlohmann::json::parse(in);
        return doc.is_object() ? 0 : 1;
    } catch (const nlohmann::json::exception& e) {
        std::cerr << argv[1] << ": " << e.what() << '\n';
        return 1;
    }
}
