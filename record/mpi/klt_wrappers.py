#!/usr/bin/env python3
"""Makes C code of the table of calls and the prototypes of an installed mpi.h.

usage: klt_wrappers.py names TABLE > klt_calls.h
       klt_wrappers.py wrappers TABLE COMPILER... > wrappers.c
       klt_wrappers.py fortran TABLE COMPILER... > fortran.c

COMPILER is a C compiler with the options that find mpi.h. `names` needs no MPI. `fortran` makes
those Fortran entry points whose calls the C wrappers don't see: all of Open MPI, of MPICH those of
mpi_f08 that call PMPI_ functions. Each records like the C
wrapper and calls the library's own entry point; only the arguments that the actions of its row use
are converted.
"""

import re
import sys

import klt_prototypes

HEAD = "/* Made by klt_wrappers.py from klt_calls.table. */\n"
BY_HAND = ("MPI_Finalize", "MPI_Pcontrol")
HANDLES = {"MPI_Comm": "Comm", "MPI_Request": "Request", "MPI_Datatype": "Type",
           "MPI_Message": "Message", "MPI_File": "File", "MPI_Group": "Group"}
STATUSES = ("status", "statuses")


def call_id(name):
    return "KLT_CALL_" + name[4:]


def names(rows):
    lines = [HEAD + "#ifndef KLT_CALLS_H", "#define KLT_CALLS_H", "", "enum klt_call_number {"]
    lines += [f"  {call_id(row.name)} = {i}," for i, row in enumerate(rows)]
    lines += [f"  KLT_CALL_COUNT = {len(rows)}", "};", "", "/* Operations of collective calls. */"]
    operations = dict.fromkeys(re.findall(r"\bKLT_OP_(\w+)", str([row.actions for row in rows])))
    lines += ["enum klt_operation {"]
    lines += [f"  KLT_OP_{name} = {i}," for i, name in enumerate(operations)]
    lines += ["};", "", "#ifdef KLT_CALL_NAMES", "static const char* const kCallNames[] = {"]
    lines += [f'    "{row.name}",' for row in rows]
    lines += ["};", "static const char* const kOperationNames[] = {"]
    lines += [f'    "MPI_{name}",' for name in operations]
    return "\n".join(lines + ["};", "#endif", "", "#endif", ""])


def renamed(texts, parameters, arguments):
    """The parameters of a prototype with the names of the row."""
    return [re.sub(rf"\b{old}\b(?=[\s\[\]\d]*$)", new, text)
            for text, (_, old), new in zip(texts, parameters, arguments)]


def actions(row, when):
    return [f"  {action};" for action in row.actions[when]]


def after(row, success):
    """The actions after a call, for the result that `success` tests."""
    done, failed = actions(row, "after"), actions(row, "failed")
    lines = []
    if done:
        lines += [f"  if ({success}) {{", *("  " + line for line in done), "  }"]
    if failed:
        lines += [f"  if (!({success})) {{", *("  " + line for line in failed), "  }"]
    return lines


def leaving(row, success):
    """The statement that ends a recorded call."""
    number = call_id(row.name)
    if row.actions["idle"]:
        return f"klt_return_poll(t, {number}, {success} && {row.actions['idle'][0]});"
    return f"klt_return(t, {number});"


def status_argument(row, passed):
    """The lines that replace an ignored status, and the arguments to pass."""
    lines = []
    for name in STATUSES:
        if name in row.arguments and name in row.used("after"):
            own = "&ownStatus" if name == "status" else "klt_statuses(t, n)"
            if name == "status":
                lines.append("  MPI_Status ownStatus;")
            ignored = "MPI_STATUS_IGNORE" if name == "status" else "MPI_STATUSES_IGNORE"
            lines.append(f"  if ({name} == {ignored}) {name} = {own};")
    return lines, passed


def wrapper(name, row, prototype):
    result, texts, parameters = prototype
    passed = ", ".join(row.arguments)
    signature = ", ".join(renamed(texts, parameters, row.arguments)) or "void"
    number = call_id(row.name)
    lines = [f"{result} {name}({signature}) {{",
             f"  struct klt_thread* t = klt_call({number});",
             f"  if (KLT_RARE(t == NULL)) return P{name}({passed});" if name != "MPI_Init"
             and name != "MPI_Init_thread" else
             f"  if (t == NULL && klt_state != KLT_OFF) return P{name}({passed});"]
    lines += actions(row, "before")
    lines += status_argument(row, passed)[0]
    lines.append(f"  const {result} klt_result = P{name}({passed});")
    lines += after(row, "klt_result == MPI_SUCCESS")
    if name in ("MPI_Init", "MPI_Init_thread"):
        lines.append("  if (t == NULL) return klt_result;")
    lines.append("  " + leaving(row, "klt_result == MPI_SUCCESS"))
    return "\n".join(lines + ["  return klt_result;", "}", ""])


def fitting(row, name, parameters):
    """The row, or one with the prototype's own names if it has another number of arguments."""
    if len(parameters) == len(row.arguments):
        return row
    if any(row.actions.values()):
        sys.exit(f"{name} has {len(parameters)} parameters, its row has {len(row.arguments)}")
    return klt_prototypes.Row(row.name, [name for _, name in parameters])


def wrappers(rows, found):
    lines = [HEAD + '#include "record/mpi/klt_hooks.h"', "",
             '#pragma GCC diagnostic ignored "-Wdeprecated-declarations"', ""]
    for row in rows:
        for name in (row.name, row.name + "_c"):
            if name in found and name not in BY_HAND:
                lines.append(wrapper(name, fitting(row, name, found[name][2]), found[name]))
    missing = {name for name in found if not name.endswith("_c")} - {row.name for row in rows}
    if missing:
        print(f"calls of mpi.h that have no row: {' '.join(sorted(missing))}", file=sys.stderr)
    return "\n".join(lines)


def fortran_prototypes(compiler):
    """By C name: (result, lower case name, upper case name, parameters) of Open MPI's entry points;
    nothing for another MPI."""
    include = "openmpi/ompi/mpi/fortran/mpif-h/prototypes_mpi.h"
    path = next((option[2:] + "/" + include for option in compiler if option.startswith("-I") and
                 _exists(option[2:] + "/" + include)), None)
    if path is None:
        return {}
    with open(path, encoding="utf-8") as header:
        text = header.read()
    found = {}
    for result, name, lower, upper, arguments in re.findall(
            r"^PN2?\((\w+),\s*(MPI_\w+),\s*(\w+),\s*(\w+),\s*\(([^;]*)\)\);", text, re.M):
        if not klt_prototypes.LEFT_OUT.search(name):
            # Types that only the library's own headers define are pointers of some kind.
            texts = [re.sub(r"^(?!(?:MPI_(?:Fint|Aint|Offset|Count)|char|int)\b).*?\b(\w+)$",
                            r"void *\1", one)
                     for one in klt_prototypes.split_list(arguments) if one != "void"]
            found[name] = (result, lower, upper, texts)
    return found


def _exists(path):
    try:
        with open(path, encoding="utf-8"):
            return True
    except OSError:
        return False


def converted(row, c_parameters):
    """The lines before and after a call that give the actions their arguments."""
    before, afterwards, late_arrays = [], [], []
    used = row.used("before") + row.used("after") + row.used("failed") + row.used("idle")
    for (kind, _), name in zip(c_parameters, row.arguments):
        if name not in used or any("klt_imade" in line and name == "newcomm"
                                   for line in row.actions["after"]):
            continue
        given = f"f_{name}"
        handle = HANDLES.get(kind.rstrip("*"))
        early, late = name in row.used("before"), name in row.used("after")
        if name == "status":
            before += ["  MPI_Fint ownStatus[sizeof(MPI_Status) / sizeof(MPI_Fint)];",
                       f"  if (klt_f_is_status_ignore({given})) {given} = ownStatus;",
                       "  MPI_Status cStatus;", "  const MPI_Status* status = &cStatus;"]
            afterwards.append(f"  klt_f_status({given}, &cStatus);")
        elif name == "statuses":
            before += [f"  if (klt_f_is_statuses_ignore({given})) {given} = klt_f_statuses(t, n);"]
            count = "*outcount" if "outcount" in row.arguments else "n"
            afterwards.append(f"  const MPI_Status* statuses = klt_f_convert_statuses(t, {count}, "
                              f"{given});")
        elif name == "requests":
            before.append(f"  const MPI_Request* requests = klt_f_requests(t, n, {given});")
        elif name in ("index", "indices"):
            count = "*outcount" if name == "indices" else "1"
            afterwards.append(f"  const int* {name} = klt_f_indices(t, {count}, {given});")
        elif handle and kind.endswith("*") and name.endswith("types"):
            late_arrays.append(f"  const MPI_Datatype* {name} = klt_f_types(t, "
                               f"{name[0] == 'r':d}, comm, {given});")
        elif handle and kind.endswith("*"):
            first = f"*{given}" if early else "0"
            before += [f"  {kind[:-1]} c_{name} = PMPI_{handle}_f2c({first});",
                       f"  {kind} {name} = &c_{name};"]
            if late:
                afterwards.append(f"  c_{name} = PMPI_{handle}_f2c(*{given});")
        elif handle:
            before.append(f"  {kind} {name} = PMPI_{handle}_f2c(*{given});")
        elif kind == "char*":
            before.append(f"  char {name}[4097];")
            before.append(f"  klt_f_text({name}, {given}, f_{name}_length);")
        elif kind == "void*":
            before.append(f"  const void* {name} = klt_f_buffer({given});")
        elif kind.endswith("*"):
            before.append(f"  const int* {name} = (const int*){given};")
        else:
            before.append(f"  const {kind} {name} = *{given};")
    return before + late_arrays, afterwards


def openmpi_entry(row, prototype, c_parameters):
    """Names of the entry point, of the library's own one and of aliases; parameters as pairs of
    declaration and name."""
    result, lower, upper, texts = prototype
    lengths = [name for (kind, _), name in zip(c_parameters, row.arguments) if kind == "char*"]
    parameters = []
    # The first parameters are those of C; then the error code and the lengths of texts follow.
    for i, text in enumerate(texts):
        old = klt_prototypes.parameter(text)[1]
        if i < len(row.arguments) and len(texts) > len(row.arguments):
            new = "f_" + row.arguments[i]
        elif old == "ierr":
            new = "f_ierr"
        else:
            new = f"f_{lengths.pop(0)}_length" if lengths else f"f_more{i}"
        parameters.append((re.sub(rf"\b{old}\b(?=[\s\[\]\d]*$)", new, text), new))
    aliases = [lower, lower + "_", lower + "__", upper, row.name + "_f", row.name + "_f08"]
    return result, f"ompi_{lower[4:]}_f", f"p{lower}_", aliases, parameters


def openmpi_f08_entry(entry):
    """The entry point of mpi_f08. Most call the one of the other interfaces, but not all."""
    result, _, own, _, parameters = entry
    return result, own[1:] + "f08_", own + "f08_", [], parameters


def mpich_entry(row, prototype, c_parameters):
    """The same for mpi_f08 of MPICH: all arguments are pointers, then those of lengths."""
    result = "void" if prototype[0] == "int" else prototype[0]
    names = [] if row.name in ("MPI_Init", "MPI_Init_thread") else row.arguments
    if row.name == "MPI_Init_thread":
        names = row.arguments[2:]
    parameters = [(f"MPI_Fint *f_{name}", f"f_{name}") if "*" not in kind or kind[:3] == "MPI" or
                  kind[:3] == "int" else (f"void *f_{name}", f"f_{name}")
                  for (kind, _), name in list(zip(c_parameters, row.arguments))[-len(names):]
                  if names]
    if result == "void":
        parameters.append(("MPI_Fint *f_ierr", "f_ierr"))
    parameters += [(f"int f_{name}_length", f"f_{name}_length")
                   for (kind, _), name in zip(c_parameters, row.arguments)
                   if names and kind.startswith("char*")]
    lower = row.name.lower()
    return result, f"{lower}_f08_", f"pmpir_{lower[4:]}_f08_", [], parameters


def fortran_wrapper(row, entry, c_parameters):
    result, name, own, aliases, parameters = entry
    signature = ", ".join(text for text, _ in parameters) or "void"
    call = f"{own}({', '.join(name for _, name in parameters)})"
    number = call_id(row.name)
    lines = [f"{result} {own}({signature});", f"{result} {name}({signature});",
             f"{result} {name}({signature}) {{"]
    if row.name == "MPI_Finalize":
        lines += ["  klt_f_finalize(f_ierr);", "}"]
    elif result != "void":
        lines += [f"  struct klt_thread* t = klt_call({number});",
                  f"  const {result} klt_result = {call};",
                  f"  if (t != NULL) klt_return(t, {number});", "  return klt_result;", "}"]
    else:
        starts = row.name in ("MPI_Init", "MPI_Init_thread")
        condition = "t == NULL && klt_state != KLT_OFF" if starts else "KLT_RARE(t == NULL)"
        before, afterwards = converted(row, c_parameters)
        lines += ["  MPI_Fint ownError;", "  if (f_ierr == NULL) f_ierr = &ownError;",
                  f"  struct klt_thread* t = klt_call({number});",
                  f"  if ({condition}) {{", f"    {call};", "    return;", "  }", *before,
                  *actions(row, "before"), f"  {call};", *afterwards,
                  *(line.replace("klt_imade", "klt_f_imade").replace("newcomm", "f_newcomm")
                    if "klt_imade" in line else line
                    for line in after(row, "*f_ierr == MPI_SUCCESS")),
                  f"  if (t != NULL) klt_return(t, {number});" if starts else
                  "  " + leaving(row, "*f_ierr == MPI_SUCCESS"), "}"]
    # Weak: a program may define one of them itself.
    for alias in aliases:
        lines.append(f"{result} {alias}({signature}) __attribute__((weak, alias(\"{name}\")));")
    return "\n".join(lines + [""])


def fortran(rows, compiler):
    found, c_found = fortran_prototypes(compiler), klt_prototypes.prototypes(compiler)
    lines = [HEAD + '#include "record/mpi/klt_fortran.h"', ""]
    for row in rows:
        if row.name not in c_found or row.name == "MPI_Pcontrol":
            continue
        c_parameters = c_found[row.name][2]
        if found and row.name in found:
            entry = openmpi_entry(row, found[row.name], c_parameters)
            lines.append(fortran_wrapper(row, entry, c_parameters))
            if entry[0] == "void":
                lines.append(fortran_wrapper(row, openmpi_f08_entry(entry), c_parameters))
        elif not found and len(c_parameters) == len(row.arguments):
            lines.append(fortran_wrapper(row, mpich_entry(row, c_found[row.name], c_parameters),
                                         c_parameters))
    return "\n".join(lines)


def main():
    rows = klt_prototypes.table(sys.argv[2])
    if sys.argv[1] == "names":
        print(names(rows), end="")
    elif sys.argv[1] == "wrappers":
        print(wrappers(rows, klt_prototypes.prototypes(sys.argv[3:])), end="")
    else:
        print(fortran(rows, sys.argv[3:]), end="")


if __name__ == "__main__":
    main()
