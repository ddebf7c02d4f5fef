"""Command line shared by the table generators: write a generated source file, or check it."""

import argparse
import sys


def write_or_check(description, render):
    """Writes render()'s text to the file named on the command line, or with --check compares it
    and returns 1 when the file is out of date. Returns the process exit status."""
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument("--check", action="store_true",
                        help="compare with OUTPUT instead of writing it")
    parser.add_argument("output")
    args = parser.parse_args()
    text = render()
    if args.check:
        with open(args.output, encoding="utf-8") as f:
            if f.read() != text:
                print(f"{args.output} is out of date; run {sys.argv[0]} {args.output}",
                      file=sys.stderr)
                return 1
        return 0
    with open(args.output, "w", encoding="utf-8") as f:
        f.write(text)
    return 0
