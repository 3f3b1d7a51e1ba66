// Says that the settings cannot be read, why, and what to do.
import type { SettingsFault } from '../reasons'
import { td } from '../texts/damaged'
import { Notice } from '../ui'

export const DamagedNotice = ({ fault }: { fault: SettingsFault }) => (
  <Notice tone="bad">
    <strong>{td('title')}</strong>
    <span>{td(fault.code) ?? fault.text}</span> <span>{td('advice')}</span>
    {fault.code === 'unreadable' && <small class="soft">{fault.text}</small>}
    <a href="#/backup">{td('backup')}</a>
  </Notice>
)
