#!/usr/bin/env python3
"""Reads the multipart messages written by pendrel_multipart_samples with Python's email
package and checks that every part comes back with its content type, name, file name and
exact bytes."""
import email.parser
import email.policy
import pathlib
import sys


def check(folder: pathlib.Path) -> int:
    passed = failed = 0
    messages = sorted(folder.glob("message_*.eml"))
    if not messages:
        print(f"no messages in {folder}")
        return 1
    for path in messages:
        errors = []
        message = email.parser.BytesParser(policy=email.policy.default).parsebytes(path.read_bytes())
        expected = [line.split("\t") for line in path.with_suffix(".expected").read_text().splitlines()]
        if message.get_content_type() != "multipart/mixed":
            errors.append(f"content type {message.get_content_type()}")
        parts = list(message.iter_parts())
        if len(parts) != len(expected):
            errors.append(f"{len(parts)} parts, expected {len(expected)}")
        if message.defects:
            errors.append(f"defects {message.defects}")
        for index, (part, (ctype, name, filename, data_file)) in enumerate(zip(parts, expected)):
            want_name = None if name == "-" else name
            want_filename = None if filename == "-" else filename
            if part.get_content_type() != ctype:
                errors.append(f"part {index}: type {part.get_content_type()} != {ctype}")
            if part.get_param("name") != want_name:
                errors.append(f"part {index}: name {part.get_param('name')!r} != {want_name!r}")
            # get_filename() falls back to the "name" parameter; read the disposition itself.
            got_filename = part.get_param("filename", header="content-disposition")
            if got_filename != want_filename:
                errors.append(f"part {index}: filename {got_filename!r} != {want_filename!r}")
            if part.get_content_disposition() != "inline":
                errors.append(f"part {index}: disposition {part.get_content_disposition()}")
            if part.get_payload(decode=True) != (folder / data_file).read_bytes():
                errors.append(f"part {index}: bytes differ")
            if part.defects:
                errors.append(f"part {index}: defects {part.defects}")
        if errors:
            failed += 1
            print(f"{path.name}: " + "; ".join(errors))
        else:
            passed += 1
    print(f"{passed} passed, {failed} failed")
    return 0 if failed == 0 else 1


if __name__ == "__main__":
    sys.exit(check(pathlib.Path(sys.argv[1])))
