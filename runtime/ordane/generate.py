#!/usr/bin/env python3
"""Turns a description of API types (see runtime/hask/api.yaml) into C++ or into the wire reference.

usage: generate.py header SCHEMA OUTPUT
       generate.py source SCHEMA OUTPUT HEADER
       generate.py wire OUTPUT SCHEMA...
"""
import sys

import yaml

sys.dont_write_bytecode = True  # the build leaves the source tree alone

from generator.header import header  # noqa: E402
from generator.schema import Schema, SchemaError  # noqa: E402
from generator.source import source  # noqa: E402
from generator.wire_document import wire_reference  # noqa: E402


def write(path, text):
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def main(arguments):
    try:
        if arguments[:1] == ["wire"] and len(arguments) >= 3:
            write(arguments[1], wire_reference([Schema(path) for path in arguments[2:]]))
        elif arguments[:1] == ["header"] and len(arguments) == 3:
            write(arguments[2], header(Schema(arguments[1])))
        elif arguments[:1] == ["source"] and len(arguments) == 4:
            write(arguments[2], source(Schema(arguments[1]), arguments[3]))
        else:
            sys.exit(__doc__)
    except (SchemaError, yaml.YAMLError) as error:
        sys.exit(f"generate.py: {error}")


if __name__ == "__main__":
    main(sys.argv[1:])
