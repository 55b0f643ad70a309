#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets into fuzz/corpus/<target>/.

Small valid inputs of each reader, plus a few damaged ones, so that fuzzing starts from every
record layout and every branch of the small languages. Run from anywhere; the files are rewritten
in place and are committed with the targets.
"""
import os
import struct
import sys

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "fuzz", "corpus")
V20 = 0x435257414C000000


class Log:
    """Bytes of a 2.0 log in one byte order."""

    def __init__(self, big=False):
        self.e = ">" if big else "<"
        self.b = bytearray()

    def head(self, version=V20):
        self.b += struct.pack(self.e + "hq", 1234, version)
        return self

    def i(self, *vs):
        for v in vs:
            self.b += struct.pack(self.e + "i", v)
        return self

    def q(self, *vs):
        for v in vs:
            self.b += struct.pack(self.e + "q", v)
        return self

    def s(self, text):
        data = text.encode()
        self.i(len(data))
        self.b += data
        return self

    def raw(self, data):
        self.b += data
        return self

    def raw_ids(self, ids):
        # 8-byte items stored raw, never swapped: always the reading machine's order here.
        for v in ids:
            self.b += struct.pack("<q", v)
        return self

    def tr(self, trid, body):
        self.i(0).q(trid)
        body(self)
        return self.i(1).q(trid)


def every_record(g):
    g.i(35).i(1).s("cs").i(524288, 0, 0).q(0)                      # cs_new
    g.i(2).i(2).s("").i(4096, 0, 0).q(0)                            # cs_new_defaultfile
    g.i(4).i(7, 0, 3)                                          # col_new
    g.i(5).i(7, 0, 3)                                          # col_del
    g.i(7).i(7).q(11).i(0, 100, 10)                            # blk_new_defaultfile
    g.i(8).i(7).q(11).i(0)                                     # blk_del_defaultfile
    g.i(28).q(1).s("default").i(3)                             # cat_location_new
    g.i(30).q(1).i(1)                                          # cat_location_update
    g.i(33).q(5).q(1).s("data5")                               # file_new
    g.i(13).q(100).s("orders").q(200)                          # cat_table_new
    g.i(15).q(300).s("adt").i(6).s("decimal(12,3)").i(12, 3).s("auto").s("price").i(1)
    g.i(38).q(200, 0, 0).i(1, 0)                               # cat_colgroup_new, no columns
    g.i(17).q(201, 5, 200).i(2).q(0).i(2).raw_ids([300, 301])  # ..._defaultfile
    g.i(36).q(201, 5)                                          # colgroup_file_new
    g.i(31).i(7).q(5, 12).i(64, 8)                             # blk_new
    g.i(32).i(7).q(5, 12)                                      # blk_del
    g.i(19).q(400).s("idx").i(1).q(100, 200, 201, 0)           # cat_index_new
    g.i(21).q(400, 4, 1000, 250)                               # minmax_size
    g.i(22).q(400).i(0).q(4).raw(b"\x01\x02\x03\x04").i(1).q(2).raw(b"abcd")
    g.i(23).q(400).i(1).q(2).raw(b"xy").i(0).q(3).raw(b"pqr")
    g.i(24).q(401, 2, 2, 512)                                  # jis_size
    g.i(25).q(401).i(0).q(2).raw_ids([9, 10])                  # jis_data
    g.i(26).q(100).i(3).raw(b"PDT")                            # pdt_new
    g.i(27).q(100).q(2).raw(b"P6")                             # pdt_new_64
    g.i(37).q(201, 5)                                          # colgroup_file_del
    g.i(20).q(400)                                             # cat_index_del
    g.i(18).q(201)                                             # cat_colgroup_del
    g.i(16).q(300)                                             # cat_column_del
    g.i(14).q(100)                                             # cat_table_del
    g.i(34).q(5)                                               # file_del
    g.i(29).q(1)                                               # cat_location_del


V25 = V20 | 1


def every_action(g):
    """One 2.5 record of every kind, as the 2.5 logger's record table in its tests has them."""
    r8 = lambda *vs: b"".join(struct.pack("<q", v) for v in vs)  # raw: never swapped
    g.i(24).i(0).q(65536, 0)                                       # cs_new
    g.i(2).q(11).i(3).i(3).q(12).i(-4)                             # scol_new, scol_del
    g.i(4).q(100).s('or"ders').i(1)                                # cat_table_new
    g.i(7).q(101).s("c1").i(1, 6, 74565).q(100)                    # cat_column_new
    g.i(9).q(102).s("idx").i(2).q(100, -1)                         # cat_index_new
    g.i(11).q(102, 10, 1000, 100)                                  # minmax_size
    g.i(12).q(102).i(0).q(8).raw(b"MINSMAXS").i(1).q(2).raw(b"omOM")  # minmax_data
    g.i(12).q(103).i(1).q(4).raw(b"abcd").i(0).q(3).raw(bytes(6))
    g.i(13).q(102).i(2).q(36).raw(r8(1, 1, 2, 0) + b"adbc").i(1).q(19).raw(r8(1, 2) + b"xyz")
    g.i(13).q(103).i(0).q(18).raw(r8(1, 1) + b"ad").i(0).q(0)     # minmax_vardata
    g.i(14).q(104, 8, 3, 50)                                       # jis_size
    g.i(15).q(104).i(1).q(4).raw(r8(1, 2, 3, -4))                  # jis_data
    g.i(16).q(105, 8).raw(b"PDTBYTES")                             # pdt_new
    g.i(17).q(2).s("loc2").i(1).i(18).q(3).i(19).q(2).i(3)        # locations: new, del, update
    g.i(20).q(11, 1, 2, 3, 4).i(21).q(11, 1, 2)                    # blk_new, blk_del
    g.i(22).q(1, 2).s("f1.dat").i(23).q(1)                         # file_new, file_del
    g.i(25).q(21, 1, 100).i(26).q(21, 0, 100)                      # paxgroup_file_new, _del
    g.i(27).q(106).s("pk").i(1).q(100, -1, 2, 101, -7)             # cat_key_new
    g.i(27).q(107).s("fk").i(2).q(100, 106, 0).i(28).q(106)        # cat_key_new, cat_key_del
    g.i(29).q(20, 100)                                             # storage_new
    g.i(31).q(21, 20, 11, 100, 2).i(0, 1, 6, 13).s("lz4").s("").i(1, 2)  # paxgroup_new
    g.i(31).q(22, 20, 12, 100, 0).i(32).q(21, 100)                 # paxgroup_new, paxgroup_del
    g.i(30).q(20).i(10).q(102).i(8).q(101).i(6).q(100).i(5).q(100)  # the drops


def logger_seeds():
    every = Log().head(V25).tr(0, every_action).b
    h = Log().head(V25).b
    return {
        "every_kind_le": every,
        "every_kind_be": Log(True).head(V25).tr(4, every_action).b,
        "two_transactions": every + Log().tr(1, every_action).b,
        "empty": h,
        "zero_bytes": b"",
        "no_version": Log().raw(struct.pack("<h", 1234)).b,
        "unbracketed": h + Log().i(23).q(1).i(21).q(1, 2, 3).b,
        "cut_in_record": every[:len(every) // 2],
        "bad_trid": h + Log().i(0).q(1).i(1).q(2).b,
        "unknown_tag": h + Log().i(0).q(1).i(33).b + every[10:],
        "huge_lengths": h + Log().i(0).q(1).i(16).q(1, 1 << 62).b,
        "name_512": h + Log().i(0).q(1).i(7).q(1).s("n" * 512).b,
    }


def reader_seeds():
    seeds = {}
    seeds["empty"] = Log().head().b
    seeds["zero_bytes"] = b""  # a file that can't even be opened for reading
    seeds["every_record_le"] = Log().head().tr(1, every_record).b
    seeds["every_record_be"] = Log(True).head().tr(1, every_record).b
    two = Log().head().tr(1, lambda g: g.i(4).i(1, 0, 2))
    two.i(14).q(9)  # between two transactions: lands in the second list
    two.tr(2, lambda g: g.i(34).q(3))
    two.i(29).q(4)  # behind the last tr_end
    seeds["two_transactions"] = two.b
    seeds["cut_in_record"] = Log().head().tr(1, every_record).b[:-30]
    seeds["open_at_end"] = Log().head().i(0).q(1).i(4).i(1, 0, 2).b
    seeds["unknown_tag"] = Log().head().tr(1, lambda g: g.i(12).i(4).i(1, 0, 2)).b
    seeds["bad_trid"] = Log().head().i(0).q(1).i(1).q(2).tr(3, lambda g: None).b
    seeds["long_strings"] = Log().head().tr(1, lambda g: g.i(13).q(1).s("t" * 511).q(2)
                                            .i(19).q(3).s("i" * 512).i(1).q(1, 2, 3, 4)).b
    seeds["huge_lengths"] = Log().head().tr(1, lambda g: g.i(27).q(1).q(1 << 62)
                                            .i(22).q(1).i(0).q(-5)).b
    seeds["version_refused"] = Log().head(V20 | 1).tr(1, lambda g: g.i(34).q(1)).b
    # A column group with id 0: an assertion the target accepts; keeps that path tested.
    seeds["colgroup_zero"] = Log().head().tr(1, lambda g: g.i(38).q(0, 0, 0).i(1, 0)).b
    return seeds


def cvlog_seeds():
    env, conf = b"\x00", b"\x01"
    seeds = {
        "empty": env,
        "two_items": env + b"MEM=debug,CBM=trace",
        "all_flags": env + b"stdout=pid:tid:txid:color:timestamp:usec\n"
                           b"stderr=timesec:usec:fileline:showlevel:flush:comment\n"
                           b"file=timestamp:usec:pid\n"
                           b"facility LOGGER=red:debug:stdout:stderr:file\n"
                           b"CBM=brightblue:trace:file # routed to the file\n"
                           b"filename=fuzz.log\n",
        "from_file": conf + b"# per-directory file\ndefault=warn:yellow\n"
                            b"WAL_CONVERTER=info:file:cyan\nUPDATE_PROPAGATION=trace\n",
        "default_file": env + b"default=file:error\nLOGGER=trace:stdout:color:magenta",
        "parse_error": env + b"CBM=debug\nstdout=bogus\nLOGGER=trace",
        "quoted": env + b"\"two words\"=error:stderr,filename=\"a b.log\",x=file",
        "missing_eq": conf + b"LOGGER debug\n",
        "colours": env + b",".join(b"F%d=%s" % (i, c) for i, c in enumerate(
            [b"black", b"red", b"green", b"brown", b"blue", b"magenta", b"cyan", b"lightgray",
             b"gray", b"brightred", b"brightgreen", b"yellow", b"brightblue", b"brightmagenta",
             b"brightcyan", b"white", b"defaultcolor"])),
        "too_many": env + b",".join(b"FACILITY_%03d=debug" % i for i in range(130)),
    }
    return seeds


def cvconfig_seeds():
    # v/n lines: group digit '1'..'6' for default..memory and '0' for engine; type digit '0'
    # bool, '1' lng, '2' dbl, '3' str (the target takes both modulo).
    return {
        "sizes": b"s1.5K\ns10 mb\ns1T\ns1tb\ns1t b\nsK\ns-1\ns10X\ns 2g \ns1e3\nsnan\ns1e300\n",
        "bools": b"btrue\nbYES\nbOn\nb2\nboff\nb0\nbfalse\nb\n",
        "parse": b"p0x\np1yes\np21M\np3 0.25\np4hello\np9x\np3\np4\n",
        "sets": b"v51block_size=512K\nv51block_size=768K\nv52bufferpool_memuse=0.25\n"
                b"v21port=70000\nv31port=1\nv23umask=022\nn51bufferpool_blocks=-1\n"
                b"v61vheap_initial_buffer_size=16K\nv50columnspace_grow=yes\n"
                b"v53block_size=abc\nv11unknown_name=3\nv01max_update_parallelism_level=-1\n"
                b"v01max_parallelism_level=-1\nv51io_prefetch_blocks=0\nv51bufferpool_size=0\n"
                b"v62large_allocation_limit=nan\nv42max_memuse=1e-9\n",
        "retype": b"n51block_size=4K\nn53block_size=x\nv51block_size=8K\n",
        "names": b"iport\niblock_size\nicbm\nidefaults\ni\nidrop_columns_eagerly\n",
        "umask": b"u022\nu777\nu1000\nubad\nu\n",
    }


def ltype_seeds():
    def seed(text, digits=0, scale=0):
        return struct.pack("<ii", digits, scale) + text.encode()
    return {
        "decimal": seed("decimal(12,3)"),
        "decimal_name": seed("decimal", 18, 4),
        "varchar": seed("varchar(30)"),
        "str": seed("str"),
        "char": seed("char", 0),
        "int": seed("int", 8),
        "integer": seed("integer", 3),
        "float": seed("float", 4),
        "timestamp": seed("timestamp", 9),
        "time": seed("time(3)"),
        "interval": seed("intervalds", 6),
        "money": seed("money"),
        "s128": seed("s128"),
        "unknown": seed("bogus(1,2)"),
        "text_only": b"date",
    }


def main():
    targets = {
        "bc20_reader_fuzz": reader_seeds(),
        "bm_logger_fuzz": logger_seeds(),
        "cvlog_config_fuzz": cvlog_seeds(),
        "cvconfig_fuzz": cvconfig_seeds(),
        "ltype_fuzz": ltype_seeds(),
    }
    for target, seeds in targets.items():
        d = os.path.join(ROOT, target)
        os.makedirs(d, exist_ok=True)
        for name, data in seeds.items():
            with open(os.path.join(d, name), "wb") as f:
                f.write(bytes(data))
        print("%s: %d seeds, %d bytes" % (target, len(seeds), sum(len(v) for v in seeds.values())))
    return 0


if __name__ == "__main__":
    sys.exit(main())
