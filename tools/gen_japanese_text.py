#!/usr/bin/env python3
"""Writes a Japanese sample text in UTF-8 for the character conversion benchmark.

The text reads like technical prose: sentences of kanji compounds, hiragana particles and verb
endings, katakana loan words, half-width katakana, full-width numbers with counters and ASCII
terms, with Japanese punctuation and line breaks. Besides a list of everyday words it draws
kanji from the whole first JIS level, so that lookups spread over the tables as in real text.
Every character has a code page 932 code. The output depends only on the seed and the size.

Usage: gen_japanese_text.py OUTPUT [--size BYTES] [--seed N]
"""

import argparse
import random

COMPOUNDS = (
    "日本 東京 会社 情報 処理 文字 変換 表示 設定 時間 電話 番号 名前 住所 天気 予報 今日 明日 "
    "仕事 会議 資料 確認 連絡 機能 画面 入力 出力 記録 管理 開発 試験 結果 状態 問題 対応 "
    "場合 必要 利用 通信 接続 削除 保存 更新 変更 追加 選択 操作 説明 内容 案内 地図 目的 "
    "現在 以下 以上 全体 部分 最初 最後 今回 次回 前回 本体 端末 装置 電源 音声 映像 "
    "漢字 平仮名 片仮名 文章 言語 辞書 検索 候補 学習 予定 行事 旅行 駅前 到着 出発"
).split()
VERBS = (
    "する します しました している されます できます ありません なります でした "
    "ください しておく すること になる とする"
).split()
PARTICLES = "は が を に で と の へ から まで より も や".split()
KATAKANA = (
    "データ ファイル システム メッセージ サーバー ネットワーク プログラム メモリ "
    "ユーザー エラー ボタン メニュー テキスト コード バージョン スレッド タイマー"
).split()
HALF_WIDTH = "ﾃﾞｰﾀ ｶﾀｶﾅ ｺｰﾄﾞ ﾊﾞｲﾄ ｾｯﾄ ﾃｽﾄ ｹﾞｰﾑ ｺﾋﾟｰ".split()
ASCII = "CPU USB UTF-8 OK ID No. Ver.2.1 http://example.jp LAN 10MB A4 GPS".split()
COUNTERS = "年 月 日 時 分 個 件 回 人 台 円 ％".split()
FULL_DIGITS = "０１２３４５６７８９"


def jis_level1_kanji():
    """The 2965 kanji of the first JIS level, Shift_JIS 889F to 9872."""
    kanji = []
    for lead in range(0x88, 0x99):
        for trail in [*range(0x40, 0x7F), *range(0x80, 0xFD)]:
            code = bytes([lead, trail])
            if b"\x88\x9f" <= code <= b"\x98\x72":
                kanji.append(code.decode("cp932"))
    return kanji


def word(rng, kanji):
    kind = rng.random()
    if kind < 0.40:
        return rng.choice(COMPOUNDS)
    if kind < 0.58:
        return rng.choice(kanji) + rng.choice(kanji)
    if kind < 0.72:
        return rng.choice(KATAKANA)
    if kind < 0.80:
        return rng.choice(HALF_WIDTH)
    if kind < 0.90:
        digits = "".join(rng.choice(FULL_DIGITS) for _ in range(rng.randint(1, 4)))
        return digits + rng.choice(COUNTERS)
    return " " + rng.choice(ASCII) + " "


def sentence(rng, kanji):
    parts = []
    for i in range(rng.randint(3, 9)):
        parts.append(word(rng, kanji) + rng.choice(PARTICLES))
        if i % 3 == 2:
            parts.append("、")
    text = "".join(parts) + rng.choice(VERBS) + "。"
    return "「" + text + "」" if rng.random() < 0.1 else text


def generate(size, seed):
    rng = random.Random(seed)
    kanji = jis_level1_kanji()
    out = []
    length = 0
    while length < size:
        paragraph = "".join(sentence(rng, kanji) for _ in range(rng.randint(2, 6))) + "\n"
        out.append(paragraph)
        length += len(paragraph.encode("utf-8"))
    text = "".join(out).encode("utf-8")[:size]
    # Cut back to a whole character.
    return text.decode("utf-8", errors="ignore")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("output")
    parser.add_argument("--size", type=int, default=1 << 20)
    parser.add_argument("--seed", type=int, default=932)
    args = parser.parse_args()
    text = generate(args.size, args.seed)
    text.encode("cp932")  # Every character must have a Shift_JIS code.
    with open(args.output, "w", encoding="utf-8", newline="\n") as f:
        f.write(text)


if __name__ == "__main__":
    main()
