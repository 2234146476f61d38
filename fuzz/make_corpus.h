#pragma once

#include <string>

/// Writes `content` to DIRECTORY/target/name.
void writeSeed(const std::string& target, const std::string& name, const std::string& content);

/// Seeds of the target grpc_page.
void writePageSeeds();
